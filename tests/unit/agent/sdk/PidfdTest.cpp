#include "agent/sdk/Pidfd.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <optional>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"
#include "support/TempCgroup.h"

namespace {

using SDK::AskPidfd;
using SDK::FileDescriptor;
using SDK::OpenPidfd;
using SDK::PidfdInfo;
using TestSupport::ChildProcess;

bool KernelTells() {
    const FileDescriptor self(OpenPidfd(getpid()));
    return AskPidfd(self.Get()).has_value();
}

class PidfdTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(process.IsOpen()); }

    ChildProcess child = ChildProcess::Spawn({"/bin/sleep", "600"});
    const FileDescriptor process{OpenPidfd(child.Pid())};
};

} // namespace

TEST_F(PidfdTest, TheParentIsTheOneThatTheProcessTableHas) {
    if (!KernelTells()) {
        GTEST_SKIP() << "the kernel says nothing through a pidfd (before Linux 6.13)";
    }
    SDK::ProcStat stat;
    ASSERT_EQ(SDK::ProcStat::Read(child.Pid(), stat), 0);
    EXPECT_EQ(stat.ppid, getpid());
    const std::optional<PidfdInfo> info = AskPidfd(process.Get());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->ppid, stat.ppid);
}

TEST_F(PidfdTest, TheGroupIsNamedByTheInodeOfItsFolder) {
    if (!KernelTells()) {
        GTEST_SKIP() << "the kernel says nothing through a pidfd (before Linux 6.13)";
    }
    const TestSupport::TempCgroup group;
    const ChildProcess inside = ChildProcess::SpawnIn(group, {"/bin/sleep", "600"});
    const FileDescriptor held(OpenPidfd(inside.Pid()));
    struct stat folder {};
    ASSERT_EQ(stat(group.Path().c_str(), &folder), 0);
    const std::optional<PidfdInfo> info = AskPidfd(held.Get());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->cgroupId, std::optional<std::uint64_t>(folder.st_ino));
}

TEST_F(PidfdTest, OfAProcessThatIsGoneTheKernelSaysNothing) {
    const int pid = child.Pid();
    ASSERT_TRUE(SDK::SendPidfdSignal(process.Get(), SIGKILL));
    child.Wait();
    EXPECT_FALSE(AskPidfd(process.Get()));
    EXPECT_FALSE(SDK::SendPidfdSignal(process.Get(), 0));
    EXPECT_EQ(errno, ESRCH);
    EXPECT_EQ(OpenPidfd(pid), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST_F(PidfdTest, ADescriptorThatIsNoPidfdTellsNothing) {
    EXPECT_FALSE(AskPidfd(-1));
    EXPECT_FALSE(AskPidfd(STDIN_FILENO));
}
