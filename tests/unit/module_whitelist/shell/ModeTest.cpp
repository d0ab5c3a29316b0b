// The working mode, its clock and what is kept of both. Files and messages are looked at as one
// sequence (see WriteJournal.h).

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "FakeClock.h"
#include "ProcessManager.h"
#include "WriteJournal.h"
#include "sdk/PathUtils.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using namespace Engine;
using ShellTest::FakeClock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::int32_t PERIOD_MINUTES = 1440;

// What the trust engine says when it stops while learning, with nothing to save, and when it starts.
const std::string ENGINE_STOPPED = "no need to persistence";
const std::string ENGINE_STARTED = "ProcsMap size [0]";

const std::string STATE_FILE = "conf/modwhitelist.ini";

class Mode : public ::testing::Test {
protected:
    Mode() {
        ProcessManager::Instance()->Init(static_cast<Framework::Task*>(engineTask.get()));
        log.Clear();
    }
    ~Mode() override { ProcessManager::Instance()->ForgetTask(engineTask.get()); }

    void GivenState(const std::string& content) { root.Write(STATE_FILE, content); }
    std::string State() const { return root.Read(STATE_FILE); }

    // The learning period is one day.
    bool ApplyPolicy(bool autoDetect = false) {
        return config.ParsePolicy(autoDetect ? R"({"content": {"learning_days": 1, "auto_detect": true}})"
                                             : R"({"content": {"learning_days": 1, "auto_detect": false}})");
    }

    // Brings the module into the mode as a start and a policy do; the records begin afterwards.
    void GivenMod(std::int64_t mod, std::int32_t learnedMinutes = PERIOD_MINUTES, bool autoDetect = false) {
        GivenState("[Driver]\nLearnTime=" + std::to_string(learnedMinutes) + "\nLearnMod=" + std::to_string(mod));
        ASSERT_TRUE(config.Init());
        ASSERT_TRUE(ApplyPolicy(autoDetect));
        ASSERT_EQ(config.GetMod(), mod);
        log.Clear();
    }

    // Learning, with the clock stamped and no more minutes than these.
    void GivenLearning(std::int32_t learnedMinutes, bool autoDetect = false) {
        GivenState("[Driver]\nLearnTime=" + std::to_string(learnedMinutes));
        ASSERT_TRUE(config.Init());
        ASSERT_TRUE(ApplyPolicy(autoDetect));
        ASSERT_EQ(config.GetMod(), MOD_LEARN);
        config.OnStarted();
        GivenState("");
        log.Clear();
    }

    // What happened, the two files of lists that are missing or empty left aside.
    std::vector<std::string> Happened() const {
        std::vector<std::string> texts;
        for (const auto& record : log.Records()) {
            if (record.text.find("ProcessFromFile read file") == std::string::npos &&
                record.text.find("parse json of sync service") == std::string::npos) {
                texts.push_back(record.text);
            }
        }
        return texts;
    }

    static std::string Written(const std::string& state, std::int64_t mod) {
        return "write modwhitelist.ini: " + state + ", mode " + std::to_string(mod);
    }

    static std::string StartDetectRefused(std::int64_t mod) {
        return "Can not switch mod to detect,maybe not learn compelete, current mod is [" + std::to_string(mod) + "]";
    }

    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<TestSupport::IdleTask> engineTask{new TestSupport::IdleTask("process_manager_task")};
    ConfigManager& config = *ConfigManager::Instance();
};

// ---- Start -----------------------------------------------------------------------------------------

TEST_F(Mode, IsLearningWhenTheControllerIsMade) {
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_EQ(config.GetLearnPeriod(), 0);
    EXPECT_EQ(config.GetLearnedTime(), 0);
    EXPECT_EQ(config.GetActionBlock(), 0);
    EXPECT_EQ(config.GetScanPeriodSeconds(), 0);
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_FALSE(config.GetDirMod());
    EXPECT_FALSE(config.GetAutoDetect());
    EXPECT_THAT(config.GetDirs(), IsEmpty());
    EXPECT_THAT(config.GetExts(), IsEmpty());
    EXPECT_THAT(config.GetExpandedDirs(), IsEmpty());
    EXPECT_EQ(&config, ConfigManager::Instance());
}

TEST_F(Mode, TheEnvironmentIsAlwaysCompatible) {
    EXPECT_TRUE(config.IsRunningEnvCompatible());
}

TEST_F(Mode, AFirstStartMakesAnEmptyFileAndThePolicyBeginsLearning) {
    EXPECT_TRUE(config.Init());
    EXPECT_EQ(State(), "");
    EXPECT_EQ(config.GetLearnedTime(), 0);
    EXPECT_TRUE(ApplyPolicy());
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_THAT(Happened(), ElementsAre(Written("", MOD_LEARN)));
}

TEST_F(Mode, AStartReadsTheLearnedTimeAndNotTheMode) {
    GivenState("[Driver]\nLearnTime=321\nLearnMod=3\n");
    EXPECT_TRUE(config.Init());
    EXPECT_EQ(config.GetLearnedTime(), 321);
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Mode, AStartWithoutALearnedTimeInTheFileBeginsAtZero) {
    GivenState("[Driver]\nLearnMod=2\n[Other]\nLearnTime=5\n");
    EXPECT_TRUE(config.Init());
    EXPECT_EQ(config.GetLearnedTime(), 0);
}

TEST_F(Mode, AStartWithoutAnInstallationRootFails) {
    SDK::PathUtils::SetInstallationPath("");
    EXPECT_FALSE(config.Init());
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "get app root path error"), 1);
    EXPECT_THAT(Happened(), ElementsAre("get app root path error"));
}

TEST_F(Mode, AStartFailsWhereTheFileCannotBeMade) {
    std::filesystem::create_directory(root / STATE_FILE);
    EXPECT_FALSE(config.Init());
    std::filesystem::remove_all(root / "conf");
    EXPECT_FALSE(config.Init());
}

TEST_F(Mode, ReadingTheLearnedTimeSaysWhetherThereIsOne) {
    EXPECT_TRUE(config.Init());
    EXPECT_FALSE(config.GetLearnedTimeFromFile());
    GivenState("[Driver]\nLearnTime=77\n");
    EXPECT_TRUE(config.GetLearnedTimeFromFile());
    EXPECT_EQ(config.GetLearnedTime(), 77);
    GivenState("[Driver]\nLearnTime=often\n");
    EXPECT_FALSE(config.GetLearnedTimeFromFile());
    EXPECT_EQ(config.GetLearnedTime(), 77);
}

TEST_F(Mode, WritingTimeAndModeSaysWhetherItWorked) {
    GivenMod(MOD_LEARNED);
    GivenState("");
    EXPECT_TRUE(config.RestoreLearnTimeToFile());
    EXPECT_EQ(State(), "[Driver]\nLearnTime=1440\n");
    EXPECT_TRUE(config.RestoreLearnModToFile());
    EXPECT_EQ(State(), "[Driver]\nLearnTime=1440\n\nLearnMod=2\n");
    std::filesystem::remove_all(root / "conf");
    EXPECT_FALSE(config.RestoreLearnTimeToFile());
    EXPECT_FALSE(config.RestoreLearnModToFile());
}

TEST_F(Mode, ReadingTheModeTakesZeroWhereTheFileHoldsNone) {
    GivenMod(MOD_DETECT);
    GivenState("[Driver]\nLearnMod=2\n");
    config.GetLearnedModFromFile();
    EXPECT_EQ(config.GetMod(), MOD_LEARNED);
    GivenState("[Driver]\nLearnMod=none\n");
    config.GetLearnedModFromFile();
    EXPECT_EQ(config.GetMod(), MOD_NONE);
}

// ---- A policy settles the mode ---------------------------------------------------------------------

class ModeBefore : public Mode, public ::testing::WithParamInterface<std::int64_t> {};

INSTANTIATE_TEST_SUITE_P(Modes, ModeBefore, ::testing::Values(MOD_NONE, MOD_LEARN, MOD_LEARNED, MOD_DETECT));

class ModeOutsideLearning : public ModeBefore {};

INSTANTIATE_TEST_SUITE_P(Modes, ModeOutsideLearning, ::testing::Values(MOD_NONE, MOD_LEARNED, MOD_DETECT));

class ModeOutsideLearned : public ModeBefore {};

INSTANTIATE_TEST_SUITE_P(Modes, ModeOutsideLearned, ::testing::Values(MOD_NONE, MOD_LEARN, MOD_DETECT));

TEST_P(ModeBefore, APolicyWithTimeLeftToLearnLeadsToLearningAndWritesNothing) {
    GivenMod(GetParam());
    EXPECT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 2}})"));
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_P(ModeBefore, APolicyWithTheTimeLearnedLeadsToTheModeInTheFileAndWritesNothing) {
    for (const std::int64_t stored : {MOD_NONE, MOD_LEARN, MOD_LEARNED, MOD_DETECT}) {
        GivenMod(GetParam());
        GivenState("[Driver]\nLearnMod=" + std::to_string(stored));
        EXPECT_TRUE(ApplyPolicy());
        EXPECT_EQ(config.GetMod(), stored);
        EXPECT_THAT(Happened(), IsEmpty());
    }
}

TEST_P(ModeBefore, APolicyWithTheTimeLearnedAndNoModeInTheFileStops) {
    GivenMod(GetParam());
    GivenState("[Driver]\nLearnTime=1440\n");
    EXPECT_TRUE(ApplyPolicy());
    EXPECT_EQ(config.GetMod(), MOD_NONE);
}

TEST_P(ModeBefore, APolicyThatIsRefusedChangesNoMode) {
    GivenMod(GetParam());
    EXPECT_FALSE(config.ParsePolicy("{"));
    EXPECT_FALSE(config.ParsePolicy("{}"));
    EXPECT_FALSE(config.ParsePolicy(R"({"content": {"learning_days": 2, "dir_mod": true}})"));
    EXPECT_EQ(config.GetMod(), GetParam());
}

TEST_F(Mode, AMinuteShortOfThePeriodIsStillLearning) {
    GivenState("[Driver]\nLearnTime=1439\nLearnMod=2\n");
    EXPECT_TRUE(config.Init());
    EXPECT_TRUE(ApplyPolicy());
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
}

// ---- The learning clock ----------------------------------------------------------------------------

TEST_F(Mode, ACheckBeforeTheStartIsStampedIsAnError) {
    GivenMod(MOD_LEARN, 0);
    EXPECT_FALSE(config.CheckLearnedStatus());
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "mStartTime is not correct, check in next time"), 1);
    EXPECT_THAT(Happened(), ElementsAre("mStartTime is not correct, check in next time"));
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
}

TEST_F(Mode, TheFirstStartedStampsTheClockAndCountsNothing) {
    GivenMod(MOD_LEARN, 10);
    EXPECT_TRUE(config.OnStartedLearnModel());
    EXPECT_EQ(config.GetLearnedTime(), 10);
    FakeClock::Advance(60);
    EXPECT_TRUE(config.OnStartedLearnModel());
    EXPECT_EQ(config.GetLearnedTime(), 11);
}

TEST_F(Mode, EveryCheckWritesTimeThenMode) {
    GivenLearning(5);
    FakeClock::Advance(120);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_THAT(Happened(), ElementsAre(Written("[Driver]\nLearnTime=7\n", MOD_LEARN),
                                        Written("[Driver]\nLearnTime=7\n\nLearnMod=1\n", MOD_LEARN)));
}

struct ClockCase {
    std::int64_t secondsPassed;
    std::int32_t minutesCounted;
};

class ModeClock : public Mode, public ::testing::WithParamInterface<ClockCase> {};

TEST_P(ModeClock, CountsWholeMinutesTowardZero) {
    GivenLearning(200);
    FakeClock::Advance(GetParam().secondsPassed);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_EQ(config.GetLearnedTime(), 200 + GetParam().minutesCounted);
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
}

INSTANTIATE_TEST_SUITE_P(Intervals, ModeClock,
                         ::testing::Values(ClockCase{0, 0}, ClockCase{59, 0}, ClockCase{60, 1}, ClockCase{61, 1},
                                           ClockCase{119, 1}, ClockCase{120, 2}, ClockCase{3600, 60}, ClockCase{-59, 0},
                                           ClockCase{-60, -1}, ClockCase{-119, -1}, ClockCase{-7200, -120},
                                           ClockCase{-18000, -300}));

TEST_F(Mode, SecondsLeftOverAreDroppedAtEveryCheck) {
    GivenLearning(0);
    for (int i = 0; i < 10; ++i) {
        FakeClock::Advance(59);
        EXPECT_TRUE(config.CheckLearnedStatus());
    }
    EXPECT_EQ(config.GetLearnedTime(), 0);
    FakeClock::Advance(61);
    EXPECT_TRUE(config.CheckLearnedStatus());
    FakeClock::Advance(59);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_EQ(config.GetLearnedTime(), 1);
}

TEST_F(Mode, AMinuteShortOfThePeriodGoesOnLearning) {
    GivenLearning(0);
    FakeClock::Advance((PERIOD_MINUTES - 1) * 60 + 59);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES - 1);
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_FALSE(log.Has(Poco::Message::PRIO_INFORMATION, "Learn complete!"));
}

TEST_F(Mode, AClockSetForwardAddsItsMinutesAtOnce) {
    GivenLearning(0);
    FakeClock::Advance(PERIOD_MINUTES * 60);
    config.OnStarted();
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES);
    EXPECT_EQ(config.GetMod(), MOD_LEARNED);
}

TEST_F(Mode, TheEndOfLearningWaitsForTheCommand) {
    GivenLearning(PERIOD_MINUTES - 1);
    FakeClock::Advance(60);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_THAT(Happened(),
                ElementsAre(Written("[Driver]\nLearnTime=1440\n", MOD_LEARN),
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=1\n", MOD_LEARN), "Learn complete!",
                            ENGINE_STOPPED, Written("[Driver]\nLearnTime=1440\n\nLearnMod=2\n\n", MOD_LEARNED),
                            ENGINE_STARTED));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_INFORMATION, "Learn complete!"), 1);
}

TEST_F(Mode, TheEndOfLearningLeadsToDetectionWhereThePolicySaysSo) {
    GivenLearning(PERIOD_MINUTES - 1, true);
    FakeClock::Advance(60);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_THAT(Happened(),
                ElementsAre(Written("[Driver]\nLearnTime=1440\n", MOD_LEARN),
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=1\n", MOD_LEARN), "Learn complete!",
                            ENGINE_STOPPED, "Learn complete, auto switch to detect mod",
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=3\n\n", MOD_DETECT), ENGINE_STARTED));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_INFORMATION, "Learn complete, auto switch to detect mod"), 1);
}

TEST_F(Mode, TheEndOfLearningSavesWhatWasLearnedWhileItIsStillLearning) {
    GivenLearning(PERIOD_MINUTES - 1);
    ProcessInfo learned;
    learned.path = root.Write("program", "#!");
    learned.name = "program";
    learned.hash = std::string(64, 'a');
    learned.type = MATCH_HASH;
    ProcessManager::Instance()->UpdateLocalProcessInfo(learned);
    FakeClock::Advance(60);
    EXPECT_TRUE(config.CheckLearnedStatus());
    const std::string saved = R"({"process_info":[{"hash":")" + learned.hash + R"(","name":"program","path":")" +
                              learned.path + R"(","size":2,"type":1}]})";
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_NOTICE, "write whitelist.data: " + saved + ", mode 1"));
    EXPECT_EQ(ProcessManager::Instance()->CountLocalTrust(), 1U);
}

TEST_F(Mode, TheEndOfLearningDoesNotLearnWhatRunsThen) {
    GivenLearning(PERIOD_MINUTES - 1);
    ProcsMessage::procInfo process;
    process.pid = 4242;
    process.path = root.Write("late", "program");
    process.name = "late";
    agent.Processes().Set({{process.pid, process}});
    FakeClock::Advance(60);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_EQ(config.GetMod(), MOD_LEARNED);
    EXPECT_EQ(ProcessManager::Instance()->CountLocalTrust(), 0U);
}

TEST_F(Mode, WhatCannotBeWrittenHoldsNothingUp) {
    GivenLearning(PERIOD_MINUTES - 1, true);
    std::filesystem::remove_all(root / "conf");
    FakeClock::Advance(60);
    EXPECT_TRUE(config.CheckLearnedStatus());
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES);
    EXPECT_EQ(config.GetMod(), MOD_DETECT);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "write config [" + (root / STATE_FILE) + "] failed."), 3);
}

TEST_F(Mode, StartedWhileLearningChecks) {
    GivenLearning(10);
    FakeClock::Advance(60);
    config.OnStarted();
    EXPECT_EQ(config.GetLearnedTime(), 11);
}

TEST_P(ModeOutsideLearning, StartedDoesNothing) {
    GivenMod(GetParam());
    config.OnStarted();
    FakeClock::Advance(3600);
    config.OnStarted();
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES);
    EXPECT_EQ(config.GetMod(), GetParam());
    EXPECT_THAT(Happened(), IsEmpty());
}

// ---- Start-detect ----------------------------------------------------------------------------------

TEST_F(Mode, StartDetectLeadsFromLearnedToDetectionInMemoryAlone) {
    GivenMod(MOD_LEARNED);
    const std::string before = State();
    config.StartDetectMod();
    EXPECT_EQ(config.GetMod(), MOD_DETECT);
    EXPECT_EQ(State(), before);
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_P(ModeOutsideLearned, StartDetectOnlyLogsTheMode) {
    GivenMod(GetParam());
    config.StartDetectMod();
    EXPECT_EQ(config.GetMod(), GetParam());
    EXPECT_THAT(Happened(), ElementsAre(StartDetectRefused(GetParam())));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, StartDetectRefused(GetParam())), 1);
}

// ---- Reset-learning --------------------------------------------------------------------------------

TEST_P(ModeBefore, ResetLeadsToLearningWithTheOldTimeInMemory) {
    GivenMod(GetParam());
    ASSERT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 2}})"));
    config.GetLearnedModFromFile();
    ASSERT_EQ(config.GetMod(), GetParam());
    GivenState("[Driver]\nLearnTime=9");
    log.Clear();
    config.ResetLearnModule();
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES);
    EXPECT_THAT(Happened(),
                ElementsAre(Written("[Driver]\nLearnTime=0\n", GetParam()),
                            Written("[Driver]\nLearnTime=0\n\nLearnMod=1\n", MOD_LEARN), ENGINE_STOPPED, ENGINE_STARTED,
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=1\n\n", MOD_LEARN),
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=1\n\n\n", MOD_LEARN)));
}

TEST_F(Mode, ResetCountsTheMinutesSinceTheLastCheck) {
    GivenLearning(100);
    FakeClock::Advance(600);
    config.ResetLearnModule();
    EXPECT_EQ(config.GetLearnedTime(), 110);
    EXPECT_EQ(State().substr(0, 23), "[Driver]\nLearnTime=110\n");
}

TEST_F(Mode, ResetWithThePeriodLearnedEndsLearningAtOnce) {
    GivenMod(MOD_NONE);
    config.ResetLearnModule();
    EXPECT_EQ(config.GetMod(), MOD_LEARNED);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "Learn complete!"));
}

TEST_F(Mode, ResetLearnsWhatRunsThen) {
    GivenMod(MOD_LEARNED);
    ASSERT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 2}})"));
    config.GetLearnedModFromFile();
    ProcsMessage::procInfo process;
    process.pid = 4242;
    process.path = root.Write("early", "program");
    process.name = "early";
    agent.Processes().Set({{process.pid, process}});
    config.ResetLearnModule();
    EXPECT_EQ(ProcessManager::Instance()->CountLocalTrust(), 1U);
}

TEST_P(ModeBefore, ResetThatCannotReadTheFileRemovesItAndChangesNothingElse) {
    GivenMod(GetParam());
    GivenState(std::string(10485761, '#'));
    config.ResetLearnModule();
    EXPECT_EQ(State(), "<missing>");
    EXPECT_EQ(config.GetMod(), GetParam());
    EXPECT_EQ(config.GetLearnedTime(), PERIOD_MINUTES);
    EXPECT_THAT(Happened(), ElementsAre("read [" + (root / STATE_FILE) + "] failed.", "ResetLearnModule Set file error",
                                        "remove modwhitelist.ini"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "ResetLearnModule Set file error"), 1);
}

TEST_F(Mode, ResetThatCannotWriteTheFileChangesNothing) {
    GivenMod(MOD_DETECT);
    std::filesystem::remove(root / STATE_FILE);
    std::filesystem::create_directory(root / STATE_FILE);
    config.ResetLearnModule();
    EXPECT_EQ(config.GetMod(), MOD_DETECT);
    EXPECT_THAT(Happened(), ElementsAre(Written("[Driver]\nLearnTime=0\n", MOD_DETECT),
                                        "write config [" + (root / STATE_FILE) + "] failed.",
                                        "ResetLearnModule Set file error", "remove modwhitelist.ini"));
}

// ---- Orderly stop ----------------------------------------------------------------------------------

TEST_P(ModeOutsideLearning, AStopLeadsToNoneWhichIsWritten) {
    GivenMod(GetParam());
    GivenState("");
    config.OnStop();
    EXPECT_EQ(config.GetMod(), MOD_NONE);
    EXPECT_THAT(Happened(), ElementsAre(Written("[Driver]\nLearnMod=0\n", MOD_NONE)));
}

TEST_F(Mode, AStopWhileLearningChecksOnceMore) {
    GivenLearning(5);
    FakeClock::Advance(60);
    config.OnStop();
    EXPECT_EQ(config.GetMod(), MOD_NONE);
    EXPECT_EQ(config.GetLearnedTime(), 6);
    EXPECT_THAT(Happened(), ElementsAre(Written("[Driver]\nLearnTime=6\n", MOD_LEARN),
                                        Written("[Driver]\nLearnTime=6\n\nLearnMod=1\n", MOD_LEARN),
                                        Written("[Driver]\nLearnTime=6\n\nLearnMod=0\n\n", MOD_NONE)));
}

TEST_F(Mode, AStopMayCompleteLearningAndStillLeadsToNone) {
    GivenLearning(PERIOD_MINUTES - 1, true);
    FakeClock::Advance(60);
    config.OnStop();
    EXPECT_EQ(config.GetMod(), MOD_NONE);
    EXPECT_THAT(Happened(),
                ElementsAre(Written("[Driver]\nLearnTime=1440\n", MOD_LEARN),
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=1\n", MOD_LEARN), "Learn complete!",
                            ENGINE_STOPPED, "Learn complete, auto switch to detect mod",
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=3\n\n", MOD_DETECT), ENGINE_STARTED,
                            Written("[Driver]\nLearnTime=1440\n\nLearnMod=0\n\n\n", MOD_NONE)));
}

TEST_F(Mode, AStopBeforeTheClockWasStampedIsLoggedAndStillLeadsToNone) {
    GivenMod(MOD_LEARN, 0);
    EXPECT_FALSE(config.OnStopLeaenModel());
    log.Clear();
    GivenState("");
    config.OnStop();
    EXPECT_EQ(config.GetMod(), MOD_NONE);
    EXPECT_THAT(Happened(), ElementsAre("mStartTime is not correct, check in next time",
                                        Written("[Driver]\nLearnMod=0\n", MOD_NONE)));
}

TEST_F(Mode, AfterAStopAPolicyWithTheTimeLearnedStaysStopped) {
    GivenMod(MOD_DETECT);
    config.OnStop();
    EXPECT_TRUE(config.Init());
    EXPECT_TRUE(ApplyPolicy());
    EXPECT_EQ(config.GetMod(), MOD_NONE);
}

// ---- Several threads -------------------------------------------------------------------------------

TEST_F(Mode, ChangesFromSeveralThreadsDoNotInterleave) {
    GivenLearning(0, true);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) {
            FakeClock::Advance(60);
            config.OnStarted();
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) {
            config.StartDetectMod();
            config.ResetLearnModule();
        }
    });
    threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE(ApplyPolicy(true));
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Learning throughout, so every command but the reset was refused and no minute was lost or counted
    // twice.
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    config.OnStarted();
    EXPECT_EQ(config.GetLearnedTime(), 20);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, StartDetectRefused(MOD_LEARN)), 20);
}

} // namespace
