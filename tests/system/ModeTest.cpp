#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

constexpr int ONE_DAY_MINUTES = 1440;

constexpr const char* WISHED = "{\"detect\":true}\n";
constexpr const char* NOT_WISHED = "{\"detect\":false}\n";
constexpr const char* NEVER_WISHED = "<missing>";

std::string WishOnDisk(const Agent& agent) {
    return agent.Root().Read("conf/desired.json");
}

std::vector<int> ReportedModes(const Agent& agent) {
    std::vector<int> modes;
    for (const Json::Value& report : agent.Reports("whitelist_6")) {
        modes.push_back(report["data"]["learn_stat"].asInt());
    }
    return modes;
}

// An agent whose learning is just about to be over: all the time has been counted.
void StartAtTheEndOfLearning(Agent& agent, bool autoDetect) {
    agent.WriteLearned({.minutes = ONE_DAY_MINUTES, .mode = LEARNING});
    agent.Start();
    agent.ApplyAndWatch({.learningDays = 1, .autoDetect = autoDetect});
}

bool IsReportedOfUnknown(Agent& agent) {
    const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    agent.DrainEvents();
    return agent.AlertsOf(unknown.Pid()).size() == 1;
}

// ---- from mode to mode

TEST(ModeTest, LearningThatIsCompleteWaitsForTheCommandAndThenDetects) {
    Agent agent;
    StartAtTheEndOfLearning(agent, false);
    agent.WaitForMode(LEARNED);
    EXPECT_EQ(agent.Status()["mode_name"].asString(), "learned");
    EXPECT_FALSE(agent.Status()["desired_detect"].asBool());
    EXPECT_EQ(WishOnDisk(agent), NEVER_WISHED);
    EXPECT_THAT(agent.Root().Read("conf/modwhitelist.ini"), HasSubstr("LearnMod=2"));
    EXPECT_TRUE(WaitFor([&] { return !ReportedModes(agent).empty(); }));
    EXPECT_THAT(ReportedModes(agent), ElementsAre(LEARNED));

    const Result started = agent.Ctl({"detect", "start"});
    EXPECT_EQ(started.status, 0) << started.err;
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_EQ(agent.Status()["mode_name"].asString(), "detecting");
    EXPECT_TRUE(agent.Status()["desired_detect"].asBool());
    EXPECT_EQ(WishOnDisk(agent), WISHED);
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, LearningThatIsCompleteGoesOnToDetectionByItselfWhenThePolicySaysSo) {
    Agent agent;
    StartAtTheEndOfLearning(agent, true);
    agent.WaitForMode(DETECTING);
    EXPECT_EQ(WishOnDisk(agent), NEVER_WISHED);
    EXPECT_THAT(agent.Root().Read("conf/modwhitelist.ini"), HasSubstr("LearnMod=3"));
    EXPECT_TRUE(WaitFor([&] { return !ReportedModes(agent).empty(); }));
    EXPECT_THAT(ReportedModes(agent), ElementsAre(DETECTING));
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, DetectionCannotBeStartedWhileLearning) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});
    const Result started = agent.Ctl({"detect", "start"});

    EXPECT_EQ(started.status, 1);
    EXPECT_EQ(started.out, "");
    EXPECT_EQ(started.err, "corvalentctl: detection was not started: Can not switch mod to detect,maybe not learn "
                           "compelete, current mod is [1]\n");
    EXPECT_EQ(agent.GetMode(), LEARNING);
    EXPECT_EQ(WishOnDisk(agent), NEVER_WISHED);
}

// The learned time in memory outlives a reset, so learning is over again at once.
TEST(ModeTest, AResetEndsDetectionAndWithdrawsTheWish) {
    Agent agent;
    agent.MakeDetecting();
    const Result reset = agent.Ctl({"learn", "reset"});
    EXPECT_EQ(reset.status, 0) << reset.err;
    EXPECT_EQ(agent.GetMode(), LEARNED);
    EXPECT_FALSE(agent.Status()["desired_detect"].asBool());
    EXPECT_EQ(WishOnDisk(agent), NOT_WISHED);
    EXPECT_EQ(agent.Status()["lists"]["local"].asInt(), 60);

    const auto judged = [&] { return agent.Status()["events"]["judged"].asInt64(); };
    const std::int64_t judgedBefore = judged();
    const std::size_t alertsBefore = agent.Alerts().size();
    const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    EXPECT_TRUE(WaitFor([&] { return judged() > judgedBefore; }));
    EXPECT_EQ(agent.Alerts().size(), alertsBefore);

    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    EXPECT_EQ(WishOnDisk(agent), WISHED);
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

// ---- restarts

TEST(ModeTest, LearningGoesOnAfterARestart) {
    Agent agent;
    agent.WriteLearned({.minutes = 100, .mode = LEARNING});
    agent.Start();
    agent.ApplyAndWatch({});
    agent.Stop();
    agent.StartWatching();
    const Json::Value status = agent.Status();
    EXPECT_EQ(status["mode"].asInt(), LEARNING);
    EXPECT_EQ(status["learned_minutes"].asInt(), 100);
    EXPECT_FALSE(status["desired_detect"].asBool());
}

TEST(ModeTest, LearningBeginsAnewWhenTheTimeLearnedIsSetBackWhileTheAgentIsStopped) {
    Agent agent;
    agent.MakeDetecting();
    EXPECT_EQ(agent.Ctl({"learn", "reset"}).status, 0);
    agent.Stop();
    const std::string kept = agent.Root().Read("conf/modwhitelist.ini");
    EXPECT_THAT(kept, HasSubstr("\nLearnTime="));
    agent.Root().Write("conf/modwhitelist.ini",
                       std::regex_replace(kept, std::regex("LearnTime=[0-9]+"), "LearnTime=0"));
    agent.StartWatching();
    const Json::Value status = agent.Status();
    EXPECT_EQ(status["mode"].asInt(), LEARNING);
    EXPECT_EQ(status["learned_minutes"].asInt(), 0);
    EXPECT_FALSE(status["desired_detect"].asBool());
    EXPECT_TRUE(WaitFor([&] { return agent.Status()["lists"]["local"].asInt() >= 60; }));
}

// Detection was on; then a policy came with a longer learning period than has been learned.
TEST(ModeTest, DetectionThatIsWishedBeginsOnceLearningIsCompleteAlsoAfterARestart) {
    Agent agent;
    agent.MakeDetecting({.minutes = ONE_DAY_MINUTES}, {.learningDays = 1});
    agent.ApplyAndWatch({.hash = "policy-2", .learningDays = 2});
    EXPECT_EQ(agent.GetMode(), LEARNING);
    EXPECT_TRUE(agent.Status()["desired_detect"].asBool());
    agent.Stop();
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), LEARNING);
    EXPECT_TRUE(agent.Status()["desired_detect"].asBool());
    EXPECT_EQ(WishOnDisk(agent), WISHED);

    agent.Stop();
    agent.WriteState(2 * ONE_DAY_MINUTES, LEARNING);
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, WhatWasLearnedWaitsForTheCommandAlsoAfterARestart) {
    Agent agent;
    agent.WriteLearned({});
    agent.Start();
    agent.ApplyAndWatch({});
    agent.Stop();
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), LEARNED);
    EXPECT_FALSE(agent.Status()["desired_detect"].asBool());
    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, DetectionOnCommandIsOnAgainAfterARestart) {
    Agent agent;
    agent.MakeDetecting();
    agent.Stop();
    EXPECT_EQ(WishOnDisk(agent), WISHED);
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_TRUE(agent.Status()["desired_detect"].asBool());
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, DetectionByItselfIsOnAgainAfterARestart) {
    Agent agent;
    StartAtTheEndOfLearning(agent, true);
    agent.WaitForMode(DETECTING);
    agent.Stop();
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_FALSE(agent.Status()["desired_detect"].asBool());
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, AStoppedModuleIsBroughtToDetectionWhenThatIsWished) {
    Agent agent;
    agent.MakeDetecting();
    agent.Stop();
    agent.WriteState(43200, STOPPED);
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_TRUE(IsReportedOfUnknown(agent));
}

TEST(ModeTest, AStoppedModuleStaysStoppedWhenDetectionIsNotWished) {
    Agent agent;
    agent.WriteLearned({.mode = STOPPED});
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_EQ(agent.GetMode(), STOPPED);
    EXPECT_EQ(agent.Status()["mode_name"].asString(), "stopped");
    agent.Stop();
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), STOPPED);
}

} // namespace
} // namespace SystemTest
