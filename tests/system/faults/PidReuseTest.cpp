#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/Pause.h"
#include "system/Told.h"

namespace SystemTest {
namespace {

using TestSupport::ChildProcess;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// As much as is read of an image: the longer its digest takes, the longer a process is being judged.
constexpr std::size_t IMAGE_BYTES = 10 * 1024 * 1024;

// A number that a process bore when the agent was told of it, and that another, trusted one bears when the
// agent goes on.
class PidReuseTest : public testing::Test {
protected:
    PidReuseTest() { trusted = agent.MakeReader("trusted"); }

    // An untrusted program that takes long to judge, another one each time.
    std::string MakeSlow(const std::string& original) {
        fs::resize_file(original, IMAGE_BYTES);
        return original;
    }

    // The trusted program under the number of the process, which is ended for it.
    ChildProcess TakeOver(std::unique_ptr<ScopedProcess>& process, const std::string& file) {
        const int pid = process->Pid();
        process.reset();
        ChildProcess successor = ChildProcess::SpawnAs(pid, agent.Scope(), {trusted, "-f", file});
        EXPECT_TRUE(WaitFor([&] {
            std::error_code error;
            return fs::read_symlink("/proc/" + std::to_string(pid) + "/exe", error) == trusted;
        }));
        return successor;
    }

    std::int64_t CountFailed() const { return CounterOf(agent, "isolate.failed"); }

    void Stop() const { Pause(agent.GetPid()); }
    void Continue() const { ASSERT_EQ(kill(agent.GetPid(), SIGCONT), 0); }

    Agent agent;
    std::string trusted;
};

TEST_F(PidReuseTest, AProcessThatTakesThePidOfAnUntrustedOneBeforeItIsJudgedLives) {
    agent.MakeDetecting({.programs = {trusted}}, {.block = true});
    const std::string unknown = agent.MakeProgram("unknown");
    Stop();
    auto process = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "60"});
    const ChildProcess successor = TakeOver(process, "/dev/null");
    Continue();
    agent.DrainEvents();
    EXPECT_TRUE(successor.IsRunning());
    EXPECT_TRUE(agent.AlertsOf(successor.Pid()).empty());
}

// The agent is stopped while it judges, at another moment in each round; rounds in which the untrusted process
// was dead already, or not begun with, prove nothing and are not counted.
TEST_F(PidReuseTest, AProcessThatTakesThePidOfAnUntrustedOneBetweenVerdictAndKillLives) {
    agent.MakeDetecting({.programs = {trusted}}, {.block = true});
    constexpr int MAX_ROUNDS = 200;
    constexpr int WANTED = 3;
    constexpr int DELAYS = 40;
    for (int round = 0; round < MAX_ROUNDS && CountFailed() < WANTED; ++round) {
        const std::string unknown = MakeSlow(agent.MakeProgram("unknown-" + std::to_string(round)));
        auto process = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "60"});
        std::this_thread::sleep_for(std::chrono::microseconds(500) * (round % DELAYS));
        Stop();
        if (process->HasEnded()) {
            Continue();
            continue;
        }
        const ChildProcess successor = TakeOver(process, "/dev/null");
        Continue();
        agent.DrainEvents();
        ASSERT_TRUE(successor.IsRunning()) << "round " << round;
    }
    EXPECT_GE(CountFailed(), WANTED);
    ExpectTold(agent, "isolate.failed", "could not be isolated: No such process");
}

// What is remembered of a process ends with it.
TEST_F(PidReuseTest, AReaderThatTakesThePidOfAnUntrustedOneIsJudgedAsItself) {
    const std::string file = agent.Work().Write("watched/file", "");
    agent.MakeDetecting({.programs = {trusted}}, {.block = true, .dirs = {agent.Work() / "watched"}});
    agent.WaitForMarks(1);
    const std::string unknown = agent.MakeReader("unknown");
    auto process = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "-f", file});
    const int pid = process->Pid();
    const Json::Value alert = agent.WaitForAlert(pid);
    EXPECT_EQ(alert["process_info"]["block"].asInt(), 1);
    EXPECT_TRUE(process->Wait(TestSupport::DEADLINE));
    // What bears the number is looked at again once that is 2 seconds ago.
    ASSERT_TRUE(WaitFor([&] { return std::time(nullptr) > alert["occur_time"].asInt64() + 2; }));
    const ChildProcess successor = TakeOver(process, file);
    // Another reader's alert comes behind whatever is made of the first one's access.
    const ScopedProcess last(agent.Scope().Path(), {agent.MakeReader("last"), "-f", file});
    agent.WaitForAlert(last.Pid());
    EXPECT_TRUE(successor.IsRunning());
    EXPECT_EQ(agent.AlertsOf(pid).size(), 1U);
}

} // namespace
} // namespace SystemTest
