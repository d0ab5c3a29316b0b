#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using testing::Values;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// An agent with one module more, that fails where the test says (FaultyModule.cpp).
class FaultyAgent : public Agent {
public:
    FaultyAgent() {
        const std::string folder = Root() / "module";
        const fs::path shipped = fs::read_symlink(folder);
        fs::remove(folder);
        fs::create_directory(folder);
        for (const auto& module : fs::directory_iterator(shipped)) {
            fs::create_symlink(module.path(), fs::path(folder) / module.path().filename());
        }
        fs::create_symlink(FAULTY_MODULE, folder + "/libfaulty_module.so");
    }

    static std::vector<std::string> MakeLauncher(const std::string& fault, const std::string& name = "faulty_module") {
        return {"/usr/bin/env", "CORVALENT_FAULT=" + fault, "CORVALENT_FAULTY_NAME=" + name};
    }

    std::int64_t Counter(const std::string& name) const { return Status()["counters"][name].asInt64(); }

    // After SIGTERM.
    void ExpectEnd(int status) {
        constexpr std::chrono::seconds LONGEST{40};
        EXPECT_TRUE(WaitFor([&] { return HasEnded(); }, LONGEST));
        EXPECT_EQ(GetExitStatus(), status) << GetErrors();
    }
};

struct Fault {
    const char* where;
    const char* what; // the record says
};

// What is thrown while the agent works goes no further than the one who throws: everybody else goes on.
class FaultyAtWork : public testing::TestWithParam<std::string> {
protected:
    // Runs an agent that detects with this fault; the fault is counted and has a record.
    void ExpectOthersGoOn(const Fault& fault, const std::string& counter) {
        SCOPED_TRACE(fault.where);
        agent.SetLauncher(FaultyAgent::MakeLauncher(std::string(fault.where) + ":" + GetParam()));
        agent.MakeDetecting();
        agent.Ctl({"command", "faulty"});
        const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
        agent.WaitForAlert(unknown.Pid());
        if (!counter.empty()) {
            EXPECT_TRUE(WaitFor([&] { return agent.Counter(counter) > 0; }));
        }
        EXPECT_EQ(agent.GetMode(), DETECTING);
        agent.Stop();
        EXPECT_GE(agent.CountInLog(fault.what), 1) << fault.what;
    }

    FaultyAgent agent;
};

TEST_P(FaultyAtWork, InTheInitOfATask) {
    ExpectOthersGoOn({"task.Init", "task [a_faulty_task]: exception in Init: "}, "task.init_failures");
}

TEST_P(FaultyAtWork, InTheRunOfATask) {
    ExpectOthersGoOn({"task.Run", "task [a_faulty_task]: exception in Run: "}, "task.exceptions");
}

TEST_P(FaultyAtWork, InTheHandlingOfAMessage) {
    ExpectOthersGoOn({"task.HandleMsg", "task [a_faulty_task]: exception in HandleMsg: "}, "task.exceptions");
}

// On the thread that brings the events to everybody.
TEST_P(FaultyAtWork, InTheInterceptingOfAMessage) {
    ExpectOthersGoOn({"task.InterceptMsg", "task [a_faulty_task]: exception in InterceptMsg: "}, "task.exceptions");
}

TEST_P(FaultyAtWork, InTheUnInitOfATask) {
    ExpectOthersGoOn({"task.UnInit", "task [a_faulty_task]: exception in UnInit: "}, "");
}

TEST_P(FaultyAtWork, InTheUnInitOfAModule) {
    ExpectOthersGoOn({"module.UnInit", "module [faulty_module]: exception in UnInit: "}, "");
}

TEST_P(FaultyAtWork, InACommand) {
    ExpectOthersGoOn({"module.Command", "module [faulty_module]: exception in the command callback: "},
                     "module.exceptions");
}

TEST_P(FaultyAtWork, InTheFactoryOfAnInspector) {
    ExpectOthersGoOn({"CreateModuleInspector", "CreateModuleInspector made no inspector, the module cannot be asked"},
                     "module.exceptions");
}

// In the place of a module that the daemon asks for its status.
TEST_P(FaultyAtWork, InTheAnswerOfAnInspector) {
    fs::remove(agent.Root() / "module/libfilenotify_module.so");
    agent.SetLauncher(FaultyAgent::MakeLauncher("inspector.Ask:" + GetParam(), "filenotify"));
    agent.MakeDetecting();
    EXPECT_GT(agent.Counter("module.exceptions"), 0);
    EXPECT_EQ(agent.GetMode(), DETECTING);
    agent.Stop();
    EXPECT_GE(agent.CountInLog("module [filenotify]: exception in Ask: "), 1);
}

// Of a module that takes the policies in the place of the one that should.
TEST_P(FaultyAtWork, InThePolicyCallback) {
    agent.SetLauncher(FaultyAgent::MakeLauncher("module.Policy:" + GetParam()));
    agent.Start();
    const Result applied = agent.Apply(MakePolicy({}));
    EXPECT_EQ(applied.status, 1);
    EXPECT_THAT(applied.err, HasSubstr("module [faulty_module]: exception in the policy callback: "));
    EXPECT_EQ(std::count(applied.err.begin(), applied.err.end(), '\n'), 1) << applied.err;
    EXPECT_GT(agent.Counter("module.exceptions"), 0);
    agent.Stop();
}

INSTANTIATE_TEST_SUITE_P(Thrown, FaultyAtWork, Values("std", "int"),
                         [](const testing::TestParamInfo<std::string>& how) { return how.param; });

// A module that cannot be made, or started, is no part of an agent: there is none without it.
TEST(Faulty, WhatIsThrownAtTheStartEndsItWithStatus70AndOneLineThatNamesTheModule) {
    const std::vector<Fault> faults = {
        {"CreateModule:std", "libfaulty_module.so threw"},
        {"CreateModule:int", "libfaulty_module.so threw"},
        {"module.Init:std", "a module cannot start: module [faulty_module]: exception in Init: faulty on purpose"},
        {"module.Init:int", "a module cannot start: module [faulty_module]: exception in Init: of an unknown type"}};
    FaultyAgent agent;
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.where);
        const Result run = agent.RunToTheEnd(FaultyAgent::MakeLauncher(fault.where));
        EXPECT_EQ(run.status, 70);
        EXPECT_THAT(run.err, HasSubstr(fault.what));
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
}

// ---- at the stop

TEST(Faulty, ATaskThatHangsAtTheStopIsNamedAndLeftBehindAndTheRestIsSaved) {
    constexpr std::chrono::seconds TASK_TIME{10};
    FaultyAgent agent;
    agent.SetLauncher(FaultyAgent::MakeLauncher("task.Stop:hang"));
    agent.MakeDetecting();
    const auto begin = std::chrono::steady_clock::now();
    agent.Signal(SIGTERM);
    agent.ExpectEnd(70);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, TASK_TIME);
    EXPECT_LT(took, 2 * TASK_TIME);
    EXPECT_THAT(agent.GetErrors(), HasSubstr("corvalentd: task [a_faulty_task] did not end and was left behind\n"));
    EXPECT_EQ(agent.CountInLog("task [a_faulty_task] did not end within 10 seconds"), 1);
    EXPECT_EQ(agent.CountInLog("stopped, status 70"), 1);
    // Those that do not hang have ended in order.
    EXPECT_GE(agent.CountInLog("task [process_manager_task] ended"), 1);
    EXPECT_GE(agent.CountInLog("task [data_comm_report_task] ended"), 1);

    agent.SetLauncher({});
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.Stop();
}

// Where nobody can take its thread away from a module: in the UnInit of a task and in a command. The two agents
// wait at the same time, because it is long.
TEST(Faulty, AStopThatDoesNotComeToAnEndIsBrokenOffAndSaysWhatItWaitedFor) {
    FaultyAgent unInit;
    unInit.SetLauncher(FaultyAgent::MakeLauncher("task.UnInit:hang"));
    unInit.MakeDetecting();
    FaultyAgent command;
    command.SetLauncher(FaultyAgent::MakeLauncher("module.Command:hang"));
    command.Start();
    const Program delivery({command.Root() / "bin/corvalentctl", "--root", command.Root().Path(), "command", "faulty"},
                           command.Work() / "delivery");
    ASSERT_TRUE(WaitFor([&] { return command.CountInLog("obeying") > 0; }));

    unInit.Signal(SIGTERM);
    command.Signal(SIGTERM);

    unInit.ExpectEnd(70);
    command.ExpectEnd(70);
    const std::string line = "the stop takes longer than 25 seconds and is broken off; it waits for ";
    EXPECT_THAT(unInit.GetErrors(), HasSubstr("corvalentd: " + line + "the UnInit of task [a_faulty_task]\n"));
    EXPECT_EQ(unInit.CountInLog(line), 1);
    EXPECT_THAT(command.GetErrors(), HasSubstr("corvalentd: " + line + "a delivery\n"));
}

} // namespace
} // namespace SystemTest
