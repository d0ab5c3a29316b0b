#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "sdk/ProcStat.h"
#include "support/MemoryLimit.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/Told.h"
#include "system/Usage.h"

namespace SystemTest {
namespace {

using TestSupport::MemoryLimit;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

constexpr std::size_t MIB = 1024 * 1024;

// A list that the server sends, which takes at least so much memory.
std::string MakeLarge(std::size_t bytes) {
    std::string document = R"({"process_info":[{"name":"p","path":"/p","hash":"h","size":1,"type":1})";
    while (document.size() < bytes) {
        document += R"(,{"name":"p","path":"/p","hash":"h","size":1,"type":1})";
    }
    return document + "]}";
}

bool HasEnded(pid_t pid) {
    SDK::ProcStat stat;
    const int error = SDK::ProcStat::Read(pid, stat);
    return error == 0 ? stat.HasEnded() : SDK::ProcStat::IsGone(error);
}

TEST(MemoryTest, KilledByTheKernelForWantOfMemoryItLosesNothingAndTheNextStartTells) {
    if (MemoryLimit::FindMount().empty()) {
        GTEST_SKIP() << "no control group can limit memory here";
    }
    const MemoryLimit limit(24 * MIB);
    Agent agent;
    const std::string unknown = agent.MakeProgram("unknown");
    agent.MakeDetecting();
    const ScopedProcess reported(agent.Scope().Path(), {unknown, "600"});
    agent.WaitForAlert(reported.Pid());
    const std::size_t alerts = agent.Alerts().size();
    const std::string local = agent.Root().Read("conf/whitelist.data");
    EXPECT_EQ(CounterOf(agent, "daemon.unclean_end"), 0);

    const int pid = agent.GetPid();
    limit.Add(pid);
    const Result sent = agent.Command("whitelist_10001", MakeLarge(48 * MIB));
    EXPECT_NE(sent.status, 0);
    EXPECT_TRUE(WaitFor([&] { return HasEnded(pid); }));
    agent.Kill9(); // what is left of it is waited for

    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    EXPECT_EQ(agent.Root().Read("conf/whitelist.data"), local);
    EXPECT_GE(agent.Alerts().size(), alerts);
    EXPECT_FALSE(agent.AlertsOf(reported.Pid()).empty());
    ExpectTold(agent, "daemon.unclean_end",
               "the run before this one, process [" + std::to_string(pid) + "], did not end in order");
    const ScopedProcess later(agent.Scope().Path(), {agent.MakeProgram("later"), "600"});
    agent.WaitForAlert(later.Pid());

    // After an orderly end there is nothing to tell.
    agent.Stop();
    agent.Start();
    EXPECT_EQ(CounterOf(agent, "daemon.unclean_end"), 0);
}

// An allocation that fails, as opposed to memory that turns out not to be there when it is touched.
TEST(MemoryTest, ADocumentForWhichThereIsNoMemoryIsRefusedAndTheAgentGoesOn) {
    Agent agent;
    agent.MakeDetecting();
    const int pid = agent.GetPid();
    const std::int64_t before = agent.Status()["lists"]["server"].asInt64();
    rlimit unlimited{};
    ASSERT_EQ(prlimit(pid, RLIMIT_AS, nullptr, &unlimited), 0);
    const rlim_t address = static_cast<rlim_t>(ReadProcessStatus(agent, "VmSize")) * 1024;
    const rlimit tight{address + 8 * MIB, unlimited.rlim_max};
    ASSERT_EQ(prlimit(pid, RLIMIT_AS, &tight, nullptr), 0);
    ExpectFailure(agent.Command("whitelist_10001", MakeLarge(48 * MIB)), 1, "");
    const ScopedProcess during(agent.Scope().Path(), {agent.MakeProgram("during"), "600"});
    agent.WaitForAlert(during.Pid());
    ASSERT_EQ(prlimit(pid, RLIMIT_AS, &unlimited, nullptr), 0);
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt64(), before);
    EXPECT_EQ(agent.Command("whitelist_10001", MakeLarge(1 * MIB)).status, 0);
    EXPECT_EQ(agent.GetPid(), pid);
    EXPECT_FALSE(HasEnded(pid));
    agent.Stop();
}

} // namespace
} // namespace SystemTest
