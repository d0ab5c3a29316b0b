#include "LearnStatusCheckTask.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "FakeClock.h"
#include "ProcessManager.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

// What happens in place of the task's sleep, given how long it would have slept.
std::function<void(useconds_t)> onSleep;

} // namespace

extern "C" int usleep(useconds_t microseconds) {
    onSleep(microseconds);
    return 0;
}

namespace {

using namespace Engine;
using ShellTest::FakeClock;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string STATUS = "whitelist_6";
constexpr int STATUS_TURNS = 3600;
constexpr int HOUSEKEEPING_TURNS = 600;
// What the trust engine says when it is asked to save and has nothing to.
const std::string NOTHING_TO_SAVE = "no need to persistence";

class ClockTask : public ::testing::Test {
protected:
    ClockTask() {
        ProcessManager::Instance()->Init(static_cast<Framework::Task*>(task.get()));
        log.Clear();
    }
    ~ClockTask() override { ProcessManager::Instance()->ForgetTask(task.get()); }

    void GivenMod(std::int64_t mod) {
        root.Write("conf/modwhitelist.ini", "[Driver]\nLearnMod=" + std::to_string(mod) + "\n");
        ASSERT_TRUE(config.Init());
        ASSERT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 1, "auto_detect": false}})"));
        config.GetLearnedModFromFile();
        ASSERT_EQ(config.GetMod(), mod);
    }

    // Runs the task for so many turns; `atSleep` is called where each of them sleeps, with its number,
    // from 1 on.
    void Run(
        int turns, const std::function<void(int turn)>& atSleep = [](int) {}) {
        int turn = 0;
        onSleep = [&](useconds_t microseconds) {
            ++turn;
            EXPECT_EQ(microseconds, 1000000U);
            atSleep(turn);
            if (turn == turns) {
                task->RequestStop();
            }
        };
        EXPECT_EQ(task->Run(), 0);
        EXPECT_EQ(turn, turns);
    }

    std::size_t CountReports() { return agent.Reports().Reports().size(); }

    static void GivenExitedProcess(int pid) {
        ProcessInfo info(pid);
        info.exited = true;
        ProcessManager::Instance()->AddToAllProcessMap(info);
    }
    static bool IsInTable(int pid) { return ProcessManager::Instance()->GetProcessInfoFromID(pid) != nullptr; }

    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<LearnStatusCheckTask> task{new LearnStatusCheckTask};
    ConfigManager& config = *ConfigManager::Instance();
};

TEST_F(ClockTask, IsWhatTheFrameworkExpects) {
    EXPECT_EQ(task->name(), "learn_status_check_task");
    EXPECT_EQ(task->GetFeatureName(), "whitelist_feature");
    EXPECT_EQ(task->GetCondition().GetTaskType(), Framework::TaskCondition::TaskType::Thread);
    EXPECT_EQ(task->GetQueueCapacity(), 1024U);
}

TEST_F(ClockTask, InitAndUnInitLog) {
    EXPECT_TRUE(task->Init());
    EXPECT_TRUE(task->UnInit());
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].text, "learn status check task init");
    EXPECT_EQ(records[0].priority, Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(records[1].text, "UnInit learn status check task");
    EXPECT_EQ(records[1].priority, Poco::Message::PRIO_DEBUG);
}

TEST_F(ClockTask, RunLogsItsStartFirst) {
    Run(1);
    EXPECT_EQ(log.Records().at(0).text, "learn status check task START");
    EXPECT_EQ(log.Records().at(0).priority, Poco::Message::PRIO_INFORMATION);
}

// ---- The status ------------------------------------------------------------------------------------

TEST_F(ClockTask, TheFirstTurnReportsBeforeAnySleep) {
    GivenMod(MOD_LEARN);
    Run(1, [&](int) { EXPECT_EQ(CountReports(), 1U); });
    ASSERT_EQ(CountReports(), 1U);
    EXPECT_THAT(agent.Reports().Of(STATUS), ElementsAre(R"({"learn_stat":1})"));
}

TEST_F(ClockTask, TheStatusIsReportedEveryHourOfTurns) {
    GivenMod(MOD_LEARNED);
    Run(2 * STATUS_TURNS + 1, [&](int turn) {
        if (turn % STATUS_TURNS == 0 || turn % STATUS_TURNS == 1) {
            const int due = turn % STATUS_TURNS == 0 ? turn / STATUS_TURNS : turn / STATUS_TURNS + 1;
            EXPECT_EQ(CountReports(), static_cast<std::size_t>(due)) << "turn " << turn;
        }
    });
    EXPECT_THAT(agent.Reports().Of(STATUS), SizeIs(3));
    EXPECT_THAT(agent.Reports().Of(STATUS), Each(R"({"learn_stat":2})"));
}

TEST_F(ClockTask, EveryModeIsReportedByItsNumber) {
    for (const std::int64_t mod : {MOD_NONE, MOD_LEARN, MOD_LEARNED, MOD_DETECT}) {
        GivenMod(mod);
        agent.Reports().Clear();
        task = new LearnStatusCheckTask;
        Run(1);
        EXPECT_THAT(agent.Reports().Of(STATUS), ElementsAre(R"({"learn_stat":)" + std::to_string(mod) + "}"));
    }
}

TEST_F(ClockTask, ANewTaskReportsAtOnce) {
    Run(1);
    task = new LearnStatusCheckTask;
    Run(1);
    EXPECT_THAT(agent.Reports().Of(STATUS), SizeIs(2));
}

TEST_F(ClockTask, TheModeIsReadAfterTheLearningClockAdvanced) {
    GivenMod(MOD_LEARN);
    config.OnStarted();
    FakeClock::Advance(1440L * 60);
    Run(1);
    EXPECT_EQ(config.GetMod(), MOD_LEARNED);
    EXPECT_THAT(agent.Reports().Of(STATUS), ElementsAre(R"({"learn_stat":2})"));
}

TEST_F(ClockTask, LearnedTimeAdvancesWithEveryStatus) {
    GivenMod(MOD_LEARN);
    Run(STATUS_TURNS + 1, [](int) { FakeClock::Advance(1); });
    EXPECT_EQ(config.GetLearnedTime(), 60);
}

// ---- Housekeeping ----------------------------------------------------------------------------------

TEST_F(ClockTask, ExitedProcessesAreRemovedEveryTenMinutesOfTurns) {
    GivenMod(MOD_DETECT);
    constexpr int PID = 4242;
    GivenExitedProcess(PID);
    Run(2 * HOUSEKEEPING_TURNS, [&](int turn) {
        if (turn == HOUSEKEEPING_TURNS) {
            EXPECT_FALSE(IsInTable(PID));
            GivenExitedProcess(PID);
        } else {
            EXPECT_EQ(IsInTable(PID), turn != 2 * HOUSEKEEPING_TURNS) << "turn " << turn;
        }
    });
}

TEST_F(ClockTask, ProcessesThatLiveStay) {
    ProcessManager::Instance()->AddToAllProcessMap(ProcessInfo(4242));
    Run(HOUSEKEEPING_TURNS);
    EXPECT_TRUE(IsInTable(4242));
}

TEST_F(ClockTask, WhatWasLearnedIsSavedInTheSamePassWhileLearning) {
    GivenMod(MOD_LEARN);
    ProcessInfo info;
    info.path = root.Write("program", "#!");
    info.name = "program";
    info.hash = std::string(64, 'a');
    ProcessManager::Instance()->UpdateLocalProcessInfo(info);
    Run(HOUSEKEEPING_TURNS, [&](int turn) {
        EXPECT_EQ(root.Read("conf/whitelist.data").empty(), turn < HOUSEKEEPING_TURNS) << "turn " << turn;
    });
    EXPECT_NE(root.Read("conf/whitelist.data").find(info.path), std::string::npos);
}

TEST_F(ClockTask, NothingNewIsNotSaved) {
    GivenMod(MOD_LEARN);
    Run(2 * HOUSEKEEPING_TURNS);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, NOTHING_TO_SAVE), 2);
}

TEST_F(ClockTask, OutsideLearningThePassSavesNothing) {
    for (const std::int64_t mod : {MOD_NONE, MOD_LEARNED, MOD_DETECT}) {
        GivenMod(mod);
        task = new LearnStatusCheckTask;
        GivenExitedProcess(4242);
        Run(HOUSEKEEPING_TURNS);
        EXPECT_FALSE(IsInTable(4242));
        EXPECT_FALSE(log.Has(Poco::Message::PRIO_DEBUG, NOTHING_TO_SAVE));
    }
}

// ---- The end ---------------------------------------------------------------------------------------

TEST_F(ClockTask, CancelledBeforeItsFirstTurnItTakesNone) {
    task->RequestStop();
    Run(0);
    EXPECT_THAT(agent.Reports().Reports(), IsEmpty());
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "learn status check task START"));
}

TEST_F(ClockTask, TheFrameworkRunsAndEndsIt) {
    std::atomic<int> turns{0};
    onSleep = [&](useconds_t) {
        turns.fetch_add(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    agent.Start(task);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return turns.load() >= 3; }));
    task->RequestStop();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return task->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_THAT(agent.Reports().Of(STATUS), SizeIs(1));
}

} // namespace
