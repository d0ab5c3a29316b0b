#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/Pause.h"
#include "system/Told.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

// Forks, each with an end: more events than the kernel keeps for a listener that does not read.
constexpr int FORKS = 40000;

// A storm of processes while the agent reads nothing, with programs of all sorts started in the middle of it.
class OverflowTest : public testing::Test {
protected:
    OverflowTest() {
        agent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + agent.Scope().Name() +
                                                  R"("}, "log": {"level": "information"}})");
        trusted = agent.MakeProgram("trusted");
        agent.MakeDetecting({.programs = {trusted, STORM}}, {});
    }

    // A program that stays.
    int Start(const std::string& program) {
        processes.push_back(
            std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{program, "600"}));
        return processes.back()->Pid();
    }

    int StartUnknown() { return Start(agent.MakeProgram("unknown-" + std::to_string(processes.size()))); }

    void Blow() const {
        ScopedProcess storm(agent.Scope().Path(), {STORM, "/dev/null", std::to_string(FORKS), "1"});
        ASSERT_TRUE(storm.Wait(3 * DEADLINE));
        ASSERT_TRUE(storm.ExitedWith(0));
    }

    void Stop() const { Pause(agent.GetPid()); }
    void Continue() const { ASSERT_EQ(kill(agent.GetPid(), SIGCONT), 0); }

    Agent agent;
    std::string trusted;
    std::vector<std::unique_ptr<ScopedProcess>> processes;
};

// Once; or twice where its start was read along with the overflow, before it was looked at: it may have executed
// another program since, and the event of that be lost.
void ExpectReported(const Agent& agent, int pid) {
    const std::size_t alerts = agent.AlertsOf(pid).size();
    EXPECT_GE(alerts, 1U) << pid;
    EXPECT_LE(alerts, 2U) << pid;
}

TEST_F(OverflowTest, EveryProgramThatStillRunsIsJudgedAndReported) {
    Stop();
    std::vector<int> unknown = {StartUnknown(), StartUnknown()};
    std::vector<int> known = {Start(trusted)};
    Blow();
    // The kernel's buffer is full: nothing of these is told.
    for (int i = 0; i < 5; ++i) {
        unknown.push_back(StartUnknown());
    }
    known.push_back(Start(trusted));
    Continue();
    for (const int pid : unknown) {
        agent.WaitForAlert(pid);
    }
    EXPECT_TRUE(WaitFor([&] { return CounterOf(agent, "events.rescan") > 0; }));
    agent.DrainEvents();
    for (const int pid : unknown) {
        ExpectReported(agent, pid);
    }
    for (const int pid : known) {
        EXPECT_TRUE(agent.AlertsOf(pid).empty()) << pid;
    }
    EXPECT_GE(CounterOf(agent, "events.rescued"), 1);
    ExpectTold(agent, "events.overflow", "the kernel dropped process events because the receive buffer was full");
    ExpectTold(agent, "events.lost", "compared with /proc after a loss of process events");
}

} // namespace
} // namespace SystemTest
