#include <algorithm>

#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/process_collect/ProcsScanTask.h"
#include "framework/Scope.h"
#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"
#include "tests/unit/agent/process_collect/Receiver.h"

using namespace TestSupport;
using Engine::ProcsFullTask;
using Engine::ProcsScanTask;

namespace {

class ProcsScanTaskTest : public testing::Test {
protected:
    void TearDown() override { Framework::Scope::SetCgroup(""); }

    // The kernel lets the parent go on while the new image is still being set up: the arguments come last.
    Engine::ProcsMessage::procInfo AwaitEntryOf(const ChildProcess& child) const {
        Engine::ProcsMessage::procInfo info;
        EXPECT_TRUE(WaitFor([&] {
            info = mTask->GetProcsMap()[child.Pid()];
            return !info.cmdline.empty();
        }));
        return info;
    }

    Poco::AutoPtr<ProcsScanTask> mTask{new ProcsScanTask};
};

} // namespace

TEST_F(ProcsScanTaskTest, AChildIsInTheTableWithAllItsFields) {
    const TempDir dir;
    const std::string program = dir / "a program";
    std::filesystem::copy_file("/bin/sleep", program);
    const ChildProcess child = ChildProcess::Spawn({program, "1000"});
    const Engine::ProcsMessage::procInfo info = AwaitEntryOf(child);
    EXPECT_EQ(info.pid, child.Pid());
    EXPECT_EQ(info.ppid, getpid());
    EXPECT_EQ(info.path, program);
    EXPECT_EQ(info.name, "a program");
    EXPECT_EQ(info.cmdline, program + " 1000");
    EXPECT_TRUE(mTask->GetProcsMap().contains(getpid()));
}

TEST_F(ProcsScanTaskTest, NoKernelThreadIsInTheTableAndEveryEntryHasAnImage) {
    const ProcsFullTask::ProcsMap processes = mTask->GetProcsMap();
    EXPECT_FALSE(processes.contains(2));
    for (const auto& [pid, info] : processes) {
        EXPECT_FALSE(info.path.empty()) << pid;
        EXPECT_FALSE(info.name.empty()) << pid;
        SDK::ProcStat stat;
        if (SDK::ProcStat::Read(pid, stat) == 0) {
            EXPECT_FALSE(stat.IsKernelThread()) << pid;
        }
    }
}

TEST_F(ProcsScanTaskTest, AnEndedProcessIsNotInTheTable) {
    ChildProcess child = ChildProcess::Spawn({"/bin/true"});
    ASSERT_TRUE(WaitFor([&child] { return !child.IsRunning(); }));
    EXPECT_FALSE(mTask->GetProcsMap().contains(child.Pid()));
}

TEST_F(ProcsScanTaskTest, OnlyProcessesInTheScopeAreInTheTable) {
    if (const std::string reason = WhyNoCgroup(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TempCgroup group;
    const ChildProcess inside = ChildProcess::ForkIn(group, [] { pause(); });
    const ChildProcess outside = ChildProcess::Spawn({"/bin/sleep", "1000"});
    Framework::Scope::SetCgroup(group.Name());
    const ProcsFullTask::ProcsMap processes = mTask->GetProcsMap();
    EXPECT_EQ(processes.size(), 1u);
    EXPECT_TRUE(processes.contains(inside.Pid()));
}

TEST_F(ProcsScanTaskTest, ALongCommandLineIsCut) {
    std::vector<std::string> words{"/bin/sleep", "1000"};
    words.resize(5000, "0");
    const ChildProcess child = ChildProcess::Spawn(words);
    EXPECT_EQ(AwaitEntryOf(child).cmdline.size(), 4096u);
}

TEST(ProcsScanTaskStopTest, WaitsWithoutPollingAndStopsAtOnce) {
    TaskHolder holder("test_holder");
    const Poco::AutoPtr<ProcsScanTask> task = holder.Start(new ProcsScanTask);
    ASSERT_TRUE(WaitFor([&task] { return std::string(task->GetStateName()) == "running"; }));
    EXPECT_TRUE(holder.End());
    EXPECT_STREQ(task->GetStateName(), "finished");
}
