#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>
#include <unistd.h>

#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"

using SDK::ProcStat;

namespace {

std::string Line(const std::string& name) {
    return "4711 (" + name +
           ") S 17 3 4 5 6 4194368 8 9 10 11 12 13 14 15 16 17 18 19 987654 21 22 23 24 25 140722222222224 27 28\n";
}

} // namespace

TEST(ProcStatTest, TheFieldsAreFoundByTheirNumbers) {
    ProcStat stat;
    ASSERT_TRUE(ProcStat::Parse(Line("sh"), stat));
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 17);
    EXPECT_EQ(stat.flags, 4194368u);
    EXPECT_EQ(stat.userTicks, 12u);
    EXPECT_EQ(stat.kernelTicks, 13u);
    EXPECT_EQ(stat.startTime, 987654u);
    EXPECT_EQ(stat.virtualBytes, 21u);
    EXPECT_EQ(stat.residentPages, 22);
    EXPECT_EQ(stat.startStack, 140722222222224u);
    EXPECT_FALSE(stat.HasExecuted());
    EXPECT_FALSE(stat.IsKernelThread());
    EXPECT_FALSE(stat.HasEnded());
}

TEST(ProcStatTest, ANameMayHoldBlanksAndParentheses) {
    ProcStat stat;
    ASSERT_TRUE(ProcStat::Parse(Line("a) R 1 (b"), stat));
    EXPECT_EQ(stat.state, 'S');
    EXPECT_EQ(stat.ppid, 17);
}

TEST(ProcStatTest, ATextThatIsNoneLeavesTheOutputAlone) {
    for (const std::string& text : {std::string(), std::string("4711 (sh) S 17"), std::string("nothing"),
                                    Line("sh").substr(0, 80), std::string("1 (a) SS") + Line("x").substr(10)}) {
        ProcStat stat;
        stat.ppid = 99;
        EXPECT_FALSE(ProcStat::Parse(text, stat)) << text;
        EXPECT_EQ(stat.ppid, 99);
    }
}

TEST(ProcStatTest, TheTestsOwnProcessIsReadTrue) {
    ProcStat stat;
    ASSERT_EQ(ProcStat::Read(getpid(), stat), 0);
    EXPECT_EQ(stat.ppid, getppid());
    EXPECT_EQ(stat.state, 'R');
    EXPECT_TRUE(stat.HasExecuted());
    EXPECT_GT(stat.startTime, 0u);
    EXPECT_GT(stat.startStack, 0u);
}

TEST(ProcStatTest, AForkIsToldFromAnExecAndKeepsTheStackThatAnExecChanges) {
    const TestSupport::ChildProcess forked = TestSupport::ChildProcess::Fork([] { pause(); });
    const TestSupport::ChildProcess started = TestSupport::ChildProcess::Spawn({"/bin/sleep", "1000"});
    ProcStat own;
    ProcStat ofFork;
    ProcStat ofStart;
    ASSERT_EQ(ProcStat::Read(getpid(), own), 0);
    ASSERT_EQ(ProcStat::Read(forked.Pid(), ofFork), 0);
    EXPECT_FALSE(ofFork.HasExecuted());
    EXPECT_EQ(ofFork.startStack, own.startStack);
    // The start returns a moment before the exec is complete.
    EXPECT_TRUE(
        TestSupport::WaitFor([&] { return ProcStat::Read(started.Pid(), ofStart) == 0 && ofStart.HasExecuted(); }));
}

TEST(ProcStatTest, AnEndedProcessIsKnownUntilItIsReaped) {
    TestSupport::ChildProcess child = TestSupport::ChildProcess::Spawn({"/bin/true"});
    const int pid = child.Pid();
    ASSERT_TRUE(TestSupport::WaitFor([&child] { return !child.IsRunning(); }));
    ProcStat stat;
    ASSERT_EQ(ProcStat::Read(pid, stat), 0);
    EXPECT_TRUE(stat.HasEnded());
    child.Wait();
    EXPECT_NE(ProcStat::Read(pid, stat), 0);
}

TEST(ProcStatTest, AKernelThreadIsKnown) {
    ProcStat stat;
    if (ProcStat::Read(2, stat) != 0) {
        GTEST_SKIP() << "no kernel thread is visible here";
    }
    EXPECT_TRUE(stat.IsKernelThread());
}
