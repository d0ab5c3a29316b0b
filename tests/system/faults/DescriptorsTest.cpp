#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "sdk/ProcStat.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/Told.h"

namespace SystemTest {
namespace {

using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

// An agent that can open nothing more for as long as this lives; what it has open it keeps.
class NoMoreDescriptors {
public:
    explicit NoMoreDescriptors(const Agent& agent) : mPid(agent.GetPid()) {
        EXPECT_EQ(prlimit(mPid, RLIMIT_NOFILE, nullptr, &mBefore), 0);
        const rlimit few{IN_USE, mBefore.rlim_max};
        EXPECT_EQ(prlimit(mPid, RLIMIT_NOFILE, &few, nullptr), 0);
    }
    ~NoMoreDescriptors() { EXPECT_EQ(prlimit(mPid, RLIMIT_NOFILE, &mBefore, nullptr), 0); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    // Descriptors below this number an agent at work has all open. As many poll(2) takes; with a limit of none
    // it would refuse to wait for any.
    static constexpr rlim_t IN_USE = 8;

    const pid_t mPid;
    rlimit mBefore{};
};

std::chrono::duration<double> CpuTimeOf(pid_t pid) {
    SDK::ProcStat stat;
    EXPECT_EQ(SDK::ProcStat::Read(pid, stat), 0);
    return std::chrono::duration<double>(static_cast<double>(stat.userTicks + stat.kernelTicks) /
                                         static_cast<double>(sysconf(_SC_CLK_TCK)));
}

constexpr const char* SHORTAGE = "no file descriptor or no memory was to be had";

TEST(DescriptorsTest, WhatStartsWhileThereAreNoneIsJudgedOnceThereAre) {
    Agent agent;
    const std::string trusted = agent.MakeProgram("trusted");
    const std::string unknown = agent.MakeProgram("unknown");
    agent.MakeDetecting({.programs = {trusted}}, {.block = true});
    std::unique_ptr<ScopedProcess> known;
    std::unique_ptr<ScopedProcess> intruder;
    {
        const NoMoreDescriptors shortage(agent);
        known = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{trusted, "600"});
        intruder = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "600"});
        // Some time of it, in which the agent does not run hot.
        const auto cpuBefore = CpuTimeOf(agent.GetPid());
        EXPECT_TRUE(WaitFor([&] { return agent.CountInLog(SHORTAGE) >= 3; }));
        EXPECT_LT((CpuTimeOf(agent.GetPid()) - cpuBefore).count(), 1);
        EXPECT_FALSE(intruder->HasEnded());
    }
    EXPECT_EQ(agent.WaitForAlert(intruder->Pid())["process_info"]["block"].asInt(), 1);
    EXPECT_TRUE(intruder->Wait(TestSupport::DEADLINE));
    agent.DrainEvents();
    EXPECT_EQ(agent.AlertsOf(intruder->Pid()).size(), 1U);
    EXPECT_FALSE(known->HasEnded());
    EXPECT_TRUE(agent.AlertsOf(known->Pid()).empty());
    ExpectTold(agent, "resources.short", SHORTAGE);
    ExpectCounted(agent, "events.lost");
    agent.Stop();
}

TEST(DescriptorsTest, FileAccessesWithoutOneAreCountedAndTheNextIsJudged) {
    Agent agent;
    const std::string file = agent.Work().Write("watched/file", "");
    agent.MakeDetecting({}, {.dirs = {agent.Work() / "watched"}});
    agent.WaitForMarks(1);
    const std::string unknown = agent.MakeReader("unknown");
    std::unique_ptr<ScopedProcess> unseen;
    {
        const NoMoreDescriptors shortage(agent);
        unseen = std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "-f", file});
        EXPECT_TRUE(WaitFor([&] { return agent.CountInLog("file accesses were lost") >= 1; }));
    }
    const ScopedProcess seen(agent.Scope().Path(), {unknown, "-f", file});
    agent.WaitForAlert(seen.Pid());
    ExpectTold(agent, "files.lost", "file accesses were lost");
    ExpectTold(agent, "resources.short", SHORTAGE);
}

} // namespace
} // namespace SystemTest
