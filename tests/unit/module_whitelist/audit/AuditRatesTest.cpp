#include <ctime>

#include <gtest/gtest.h>

#include "SpecifiedFileAudit.h"

namespace {

// What this program's clock(3) says, in microseconds.
std::clock_t cpuTime = 0;

} // namespace

extern "C" std::clock_t clock() noexcept {
    return cpuTime;
}

namespace AuditTest {

namespace {

constexpr std::clock_t SECOND = 1000000;
constexpr int MOST_IN_A_WINDOW = 10000;

class AuditRates : public ::testing::Test {
protected:
    AuditRates() { cpuTime = 5 * SECOND; }

    // So many messages; how many of them were too many.
    int CountTooMany(int messages) {
        int tooMany = 0;
        for (int i = 0; i < messages; ++i) {
            tooMany += audit.IsTooManyMsg() ? 1 : 0;
        }
        return tooMany;
    }

    Engine::SpecifiedFileAudit& audit = Engine::SpecifiedFileAudit::Instance();
};

} // namespace

TEST_F(AuditRates, TenThousandMessagesInASecondAreNotTooMany) {
    EXPECT_EQ(CountTooMany(MOST_IN_A_WINDOW), 0);
    EXPECT_TRUE(audit.IsTooManyMsg());
    EXPECT_TRUE(audit.IsTooManyMsg());
}

TEST_F(AuditRates, AWindowLastsASecond) {
    EXPECT_EQ(CountTooMany(MOST_IN_A_WINDOW + 1), 1);
    cpuTime += SECOND - 1;
    EXPECT_TRUE(audit.IsTooManyMsg());
    cpuTime += 1;
    EXPECT_FALSE(audit.IsTooManyMsg());
}

TEST_F(AuditRates, ANewWindowBeginsWithTheMessageThatOpensIt) {
    EXPECT_EQ(CountTooMany(MOST_IN_A_WINDOW + 1), 1);
    cpuTime += SECOND;
    EXPECT_EQ(CountTooMany(MOST_IN_A_WINDOW), 0);
    cpuTime += SECOND - 1;
    EXPECT_TRUE(audit.IsTooManyMsg());
}

TEST_F(AuditRates, TheFirstWindowBeginsWithTheProcess) {
    cpuTime = SECOND - 1;
    EXPECT_EQ(CountTooMany(MOST_IN_A_WINDOW + 1), 1);
    cpuTime = SECOND;
    EXPECT_FALSE(audit.IsTooManyMsg());
}

TEST_F(AuditRates, TheFirstSampleIsTaken) {
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
}

TEST_F(AuditRates, WithinTwoMillisecondsOfASampleNoneIsTaken) {
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
    EXPECT_TRUE(audit.SamplingNotifiesByInterval());
    cpuTime += 1999;
    EXPECT_TRUE(audit.SamplingNotifiesByInterval());
}

TEST_F(AuditRates, AfterTwoMillisecondsTheNextSampleIsTaken) {
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
    cpuTime += 2000;
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
    EXPECT_TRUE(audit.SamplingNotifiesByInterval());
}

TEST_F(AuditRates, WhatIsSkippedDoesNotPutTheNextSampleOff) {
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
    cpuTime += 1500;
    EXPECT_TRUE(audit.SamplingNotifiesByInterval());
    cpuTime += 500;
    EXPECT_FALSE(audit.SamplingNotifiesByInterval());
}

} // namespace AuditTest
