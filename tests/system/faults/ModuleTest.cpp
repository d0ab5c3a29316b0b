#include <algorithm>
#include <chrono>
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
using testing::TestWithParam;
using testing::Values;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// An agent with one module more, that fails where the test says (FaultyModule.cpp).
class Faulty : public testing::Test {
protected:
    Faulty() {
        const std::string folder = agent.Root() / "module";
        const fs::path shipped = fs::read_symlink(folder);
        fs::remove(folder);
        fs::create_directory(folder);
        for (const auto& module : fs::directory_iterator(shipped)) {
            fs::create_symlink(module.path(), fs::path(folder) / module.path().filename());
        }
        fs::create_symlink(FAULTY_MODULE, folder + "/libfaulty_module.so");
    }

    void FailAt(const std::string& fault, const std::string& name = "faulty_module") {
        launcher = {"/usr/bin/env", "CORVALENT_FAULT=" + fault, "CORVALENT_FAULTY_NAME=" + name};
        agent.SetLauncher(launcher);
    }

    std::int64_t Counter(const std::string& name) const { return agent.Status()["counters"][name].asInt64(); }

    // SIGTERM; how long the end takes.
    std::chrono::milliseconds StopWith(int status) {
        const auto begin = std::chrono::steady_clock::now();
        agent.Signal(SIGTERM);
        constexpr std::chrono::seconds LONGEST{40};
        EXPECT_TRUE(WaitFor([&] { return agent.HasEnded(); }, LONGEST));
        EXPECT_EQ(agent.GetExitStatus(), status) << agent.GetErrors();
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    }

    Agent agent;
    std::vector<std::string> launcher;
};

struct Fault {
    const char* where;
    const char* what; // the record says
};

// What is thrown while the agent works goes no further than the one who throws: everybody else goes on.
class FaultyAtWork : public Faulty, public testing::WithParamInterface<std::string> {
protected:
    // Runs an agent that detects with this fault; the fault is counted and has a record.
    void ExpectOthersGoOn(const Fault& fault, const std::string& counter) {
        SCOPED_TRACE(fault.where);
        FailAt(std::string(fault.where) + ":" + GetParam());
        agent.MakeDetecting();
        agent.Ctl({"command", "faulty"});
        const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
        agent.WaitForAlert(unknown.Pid());
        if (!counter.empty()) {
            EXPECT_TRUE(WaitFor([&] { return Counter(counter) > 0; }));
        }
        const Json::Value status = agent.Status();
        EXPECT_EQ(status["mode"].asInt(), DETECTING);
        EXPECT_EQ(status["events"]["lost"].asInt(), 0);
        agent.Stop();
        EXPECT_GE(agent.CountInLog(fault.what), 1) << fault.what;
    }
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
    FailAt("inspector.Ask:" + GetParam(), "filenotify");
    agent.MakeDetecting();
    EXPECT_GT(Counter("module.exceptions"), 0);
    EXPECT_EQ(agent.GetMode(), DETECTING);
    agent.Stop();
    EXPECT_GE(agent.CountInLog("module [filenotify]: exception in Ask: "), 1);
}

INSTANTIATE_TEST_SUITE_P(Thrown, FaultyAtWork, Values("std", "int"),
                         [](const testing::TestParamInfo<std::string>& how) { return how.param; });

// A module that cannot be made, or started, is no part of an agent: there is none without it.
TEST_F(Faulty, WhatIsThrownAtTheStartEndsItWithStatus70AndOneLineThatNamesTheModule) {
    const std::vector<Fault> faults = {
        {"CreateModule:std", "libfaulty_module.so threw"},
        {"CreateModule:int", "libfaulty_module.so threw"},
        {"module.Init:std", "a module cannot start: module [faulty_module]: exception in Init: faulty on purpose"},
        {"module.Init:int", "a module cannot start: module [faulty_module]: exception in Init: of an unknown type"}};
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.where);
        FailAt(fault.where);
        const Result run = agent.RunToTheEnd(launcher);
        EXPECT_EQ(run.status, 70);
        EXPECT_THAT(run.err, HasSubstr(fault.what));
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
}

// ---- at the stop

TEST_F(Faulty, ATaskThatHangsAtTheStopIsNamedAndLeftBehindAndTheRestIsSaved) {
    constexpr std::chrono::seconds TASK_TIME{10};
    FailAt("task.Stop:hang");
    agent.MakeDetecting();
    const std::chrono::milliseconds took = StopWith(70);
    EXPECT_GE(took, TASK_TIME);
    EXPECT_LT(took, 2 * TASK_TIME);
    EXPECT_THAT(agent.GetErrors(), HasSubstr("corvalentd: task [a_faulty_task] did not end and was left behind\n"));
    EXPECT_EQ(agent.CountInLog("Error framework RunningTasks.cpp"), 1);
    EXPECT_EQ(agent.CountInLog("stopped, status 70"), 1);
    // Those that do not hang have ended in order.
    EXPECT_GE(agent.CountInLog("task [process_manager_task] ended"), 1);
    EXPECT_GE(agent.CountInLog("task [data_comm_report_task] ended"), 1);

    FailAt("");
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    agent.Stop();
}

// Nobody can take the stopping thread away from it.
TEST_F(Faulty, ATaskThatHangsInItsUnInitIsNamedAndTheStopBrokenOff) {
    FailAt("task.UnInit:hang");
    agent.MakeDetecting();
    StopWith(70);
    const std::string line = "the stop takes longer than 25 seconds and is broken off; it waits for the UnInit of task "
                             "[a_faulty_task]";
    EXPECT_THAT(agent.GetErrors(), HasSubstr("corvalentd: " + line + "\n"));
    EXPECT_EQ(agent.CountInLog(line), 1);
}

TEST_F(Faulty, ACommandThatHangsDoesNotHoldUpTheStopForGood) {
    FailAt("module.Command:hang");
    agent.Start();
    Program delivery({agent.Root() / "bin/corvalentctl", "--root", agent.Root().Path(), "command", "faulty"},
                     agent.Work() / "delivery");
    ASSERT_TRUE(WaitFor([&] { return agent.CountInLog("obeying") > 0; }));
    StopWith(70);
    EXPECT_THAT(agent.GetErrors(), HasSubstr("broken off; it waits for a delivery\n"));
}

} // namespace
} // namespace SystemTest
