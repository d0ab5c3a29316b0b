#include "framework/TaskCondition.h"

#include <string>

#include <gtest/gtest.h>

using Framework::TaskCondition;

namespace {

constexpr int UNTOUCHED = 77;

// The period that the document stands for; UNTOUCHED when it is refused.
int Parse(const std::string& document) {
    int period = UNTOUCHED;
    const bool accepted = TaskCondition::Parse(document, period);
    EXPECT_EQ(accepted, period != UNTOUCHED) << document;
    return period;
}

} // namespace

TEST(TaskCondition, AnEmptyObjectStandsForNoPeriod) {
    EXPECT_EQ(Parse("{}"), 0);
}

TEST(TaskCondition, OtherMembersAreIgnored) {
    EXPECT_EQ(Parse(R"({"other": 5})"), 0);
    EXPECT_EQ(Parse(R"({"other": [], "period": 5})"), 5);
}

TEST(TaskCondition, APeriodOfOneSecondOrMoreIsAccepted) {
    EXPECT_EQ(Parse(R"({"period":1})"), 1);
    EXPECT_EQ(Parse(R"({"period":2147483647})"), 2147483647);
}

TEST(TaskCondition, APeriodBelowOneIsRefused) {
    EXPECT_EQ(Parse(R"({"period":0})"), UNTOUCHED);
    EXPECT_EQ(Parse(R"({"period":-1})"), UNTOUCHED);
}

TEST(TaskCondition, APeriodThatIsNoIntegerIsRefused) {
    for (const char* period : {"\"x\"", "\"5\"", "1.5", "null", "true", "{}", "[1]", "2147483648", "1e300"}) {
        EXPECT_EQ(Parse(std::string("{\"period\":") + period + "}"), UNTOUCHED) << period;
    }
}

TEST(TaskCondition, ADocumentThatIsNoObjectIsRefused) {
    for (const char* document : {"", "{", "[]", "[1]", "5", "null", "\"period\"", "{} x"}) {
        EXPECT_EQ(Parse(document), UNTOUCHED) << document;
    }
}

TEST(TaskCondition, ANewConditionHasNoPeriodButDivides) {
    const TaskCondition condition(TaskCondition::TaskType::Thread);
    EXPECT_FALSE(condition.IsPeriodic());
    EXPECT_EQ(condition.GetTaskCondition(), 1);
    EXPECT_EQ(condition.GetTaskType(), TaskCondition::TaskType::Thread);
}

TEST(TaskCondition, APeriodCanBeSetAndTakenAway) {
    TaskCondition condition(TaskCondition::TaskType::Thread);
    condition.SetPeriod(60);
    EXPECT_TRUE(condition.IsPeriodic());
    EXPECT_EQ(condition.GetTaskCondition(), 60);
    condition.SetPeriod(0);
    EXPECT_FALSE(condition.IsPeriodic());
}
