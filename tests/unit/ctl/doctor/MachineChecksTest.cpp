#include "unit/ctl/doctor/SubjectTest.h"

namespace DoctorTest {
namespace {

using MachineChecksTest = SubjectTest;

TEST_F(MachineChecksTest, AMachineInOrderIsOkInEverything) {
    for (const Check& check : MachineChecks()) {
        ExpectOk(check.name);
    }
}

TEST_F(MachineChecksTest, TheKernelMustKnowPidfds) {
    ExpectOk("kernel", "6.12.5-amd64; it sends only");
    proc.Write("sys/kernel/osrelease", "6.1.0-18-amd64\n");
    ExpectOk("kernel", "6.1.0-18-amd64; from 6.6 on");
    proc.Write("sys/kernel/osrelease", "5.2.99\n");
    ExpectFailure("kernel", "5.2.99, below 5.3");
    proc.Write("sys/kernel/osrelease", "Plan 9\n");
    ExpectWarning("kernel", "not known [Plan 9]");
    Remove("sys/kernel/osrelease");
    ExpectWarning("kernel", "not known []");
}

TEST_F(MachineChecksTest, AClosedDoorIsSaidWithTheAgentsOwnReason) {
    connectorProblem = "no connector here";
    ExpectFailure("process events", "no connector here");
    pidfdProblem = "Function not implemented";
    ExpectFailure("pidfd", "Function not implemented");
}

TEST_F(MachineChecksTest, FanotifyIsNeededByDirectoryModeOnly) {
    fileErrors = false;
    ExpectOk("fanotify", "one by one");
    fanotifyProblem = "no fanotify here";
    ExpectWarning("fanotify", "no fanotify here");
    subject.policy.directoryMode = true;
    ExpectFailure("fanotify", "no fanotify here");
}

TEST_F(MachineChecksTest, TheScopeIsAControlGroupThatIsThere) {
    ExpectOk("control groups", "mounted at " + proc.Path() + "/c g; the scope is the whole machine");
    subject.scope = "/canary";
    ExpectFailure("control groups", "there is no control group /canary");
    std::filesystem::create_directory(proc / "c g/canary");
    ExpectOk("control groups", "the scope is /canary");

    WriteMounts("rw", false);
    ExpectFailure("control groups", "not mounted, but the scope is the control group /canary");
    subject.scope = "";
    ExpectWarning("control groups", "not mounted");
}

TEST_F(MachineChecksTest, ProcHidesNothing) {
    WriteMounts("rw,hidepid=0");
    ExpectOk("/proc");
    WriteMounts("rw,hidepid=off,gid=4");
    ExpectOk("/proc");
    WriteMounts("rw,hidepid=invisible");
    ExpectWarning("/proc", "hidepid=invisible");
    WriteMounts("rw,subset=pid");
    ExpectWarning("/proc", "subset=pid");
    Remove("self/mountinfo");
    ExpectFailure("/proc", "not mounted");
}

TEST_F(MachineChecksTest, MissingRightsOfOnesOwnAreNamed) {
    WriteCapabilities("self", "0000000000000000");
    ExpectWarning("own rights", "missing: CAP_NET_ADMIN, CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_KILL, CAP_FOWNER, "
                                "CAP_SYS_ADMIN;");
    Remove("self/status");
    ExpectWarning("own rights", "not known");
}

TEST_F(MachineChecksTest, ASettingThatIsTooSmallIsSaidWithTheReason) {
    const std::map<std::string, std::string> reasons = {
        {"fs.fanotify.max_queued_events", "overflows the kernel's queue"},
        {"fs.fanotify.max_user_marks", "may not all be placed"},
        {"fs.fanotify.max_user_groups", "may be refused"},
        {"kernel.pid_max", "used again so soon"}};
    for (const auto& [setting, reason] : reasons) {
        std::string path = "sys/" + setting;
        std::replace(path.begin(), path.end(), '.', '/');
        proc.Write(path, "10\n");
        ExpectWarning(setting, "10, below ");
        ExpectWarning(setting, reason);
        EXPECT_THAT(Examine(setting).remedy, testing::HasSubstr("sysctl -w " + setting + "="));
        Remove(path);
        ExpectWarning(setting, "not known");
    }
}

TEST_F(MachineChecksTest, AReceiveLimitThatCannotBeSeenMeansAnotherNetworkNamespace) {
    Remove("sys/net/core/rmem_max");
    ExpectWarning("net.core.rmem_max", "not the initial network namespace");
}

TEST_F(MachineChecksTest, AMachineThatRunsOutOfOpenFilesIsWarned) {
    proc.Write("sys/fs/file-nr", "95000\t0\t100000\n");
    ExpectWarning("fs.file-max", "95000 of 100000");
    proc.Write("sys/fs/file-nr", "many\n");
    ExpectWarning("fs.file-max", "not known");
}

TEST_F(MachineChecksTest, AClockThatCannotBeRightIsAFailure) {
    clock.now = 3600;
    ExpectFailure("clock", "1970-01-01");
    clock.now = 4102444800;
    ExpectFailure("clock", "2100-01-01");
}

TEST_F(MachineChecksTest, AClockThatNobodyKeepsIsAWarning) {
    clock.synchronised = false;
    ExpectWarning("time service", "not synchronised");
}

// Against the machine that the test runs on, which has to be what the agent needs.
TEST(MachineTest, TheRealMachineIsReadAsItIs) {
    const Machine machine = Machine::Real();
    EXPECT_EQ(machine.tryProcConnector(), "");
    EXPECT_EQ(machine.tryFanotify(), "");
    EXPECT_EQ(machine.tryPidfd(), "");
    EXPECT_GT(machine.readClock().now, NOW);
    Space space;
    EXPECT_EQ(machine.measureSpace("/tmp", space), 0);
    EXPECT_GT(space.totalBytes, 0U);
    EXPECT_EQ(machine.measureSpace("/no-such-folder", space), ENOENT);
    EXPECT_TRUE(ReadCapabilities(machine, "self").has_value());
    EXPECT_EQ(machine.ReadLink("self"), std::to_string(getpid()));
}

} // namespace
} // namespace DoctorTest
