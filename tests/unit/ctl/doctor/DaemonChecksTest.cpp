#include <sys/stat.h>

#include "unit/ctl/doctor/SubjectTest.h"

namespace DoctorTest {
namespace {

class DaemonChecksTest : public SubjectTest {
protected:
    void LoseDaemon(bool missing, const std::string& reason) {
        subject.status = Json::Value();
        subject.daemonMissing = missing;
        subject.noAnswer = reason;
    }

    void LockBy(int pid) const {
        struct stat lock {};
        stat(root.Write("run/agent.lock", std::to_string(pid) + "\n").c_str(), &lock);
        proc.Write("locks", "1: POSIX  ADVISORY  WRITE 1 08:02:" + std::to_string(lock.st_ino) + " 0 EOF\n" +
                                "2: FLOCK  ADVISORY  WRITE " + std::to_string(pid) +
                                " 08:02:" + std::to_string(lock.st_ino) + " 0 EOF\n");
    }
};

TEST_F(DaemonChecksTest, ADaemonInOrderIsOkInEverything) {
    LockBy(4711);
    root.Write("run/agent.sock", "");
    chmod((root / "run").c_str(), 0700);
    chmod((root / "run/agent.sock").c_str(), 0600);
    EXPECT_EQ(DaemonChecks(subject).size(), 11U);
    for (const Check& check : DaemonChecks(subject)) {
        ExpectOk(check.name);
    }
    ExpectOk("daemon", "pid 4711, up 1 min 1 s");
}

TEST_F(DaemonChecksTest, WithoutADaemonOnlyThatIsSaid) {
    LoseDaemon(true, "no daemon listens");
    EXPECT_EQ(DaemonChecks(subject).size(), 1U);
    EXPECT_TRUE(HealthChecks(subject).empty());
    ExpectFailure("daemon", "not running, although a policy was accepted");
    subject.policy.accepted = false;
    ExpectWarning("daemon", "not running");
}

TEST_F(DaemonChecksTest, ADaemonThatDoesNotAnswerOrHasNoSocketIsAFailure) {
    LoseDaemon(false, "the daemon broke off the connection");
    ExpectFailure("daemon", "broke off");
    LoseDaemon(true, "no daemon listens");
    LockBy(4711);
    ExpectFailure("daemon", "pid 4711 works in this root, but no daemon listens");
}

TEST_F(DaemonChecksTest, TwoDaemonsInOneRootAreAFailure) {
    LockBy(4712);
    ExpectFailure("daemon", "pid 4711 answers, but pid 4712 works in this root");
}

TEST_F(DaemonChecksTest, ASocketThatOthersCanReachIsAFailure) {
    root.Write("run/agent.sock", "");
    chmod((root / "run").c_str(), 0700);
    chmod((root / "run/agent.sock").c_str(), 0666);
    ExpectFailure("its socket", "run/agent.sock is open to others");
    chmod((root / "run").c_str(), 0755);
    ExpectFailure("its socket", "run is open to others");
}

TEST_F(DaemonChecksTest, AnOtherVersionOrAReplacedProgramIsAWarning) {
    Link("4711/exe", "/usr/local/corvalent/bin/corvalentd (deleted)");
    ExpectWarning("its version", "replaced since it was started");
    subject.status["version"] = "0.0.9";
    ExpectWarning("its version", "the daemon is version 0.0.9, corvalentctl " CORVALENT_VERSION);
}

TEST_F(DaemonChecksTest, ItsRightsAreMeasuredByWhatThePolicyAsksFor) {
    WriteCapabilities("4711", "0000000000081004"); // DAC_READ_SEARCH, NET_ADMIN, SYS_PTRACE
    ExpectWarning("its rights", "not needed by the policy in force: CAP_KILL (to kill others' processes), CAP_FOWNER");
    subject.policy.blocks = true;
    ExpectFailure("its rights", "CAP_KILL");
    subject.policy = {true, true, false};
    ExpectFailure("its rights", "CAP_SYS_ADMIN (to watch files)");
    subject.policy = {true, false, false};
    WriteCapabilities("4711", "000001ffffffefff");
    ExpectFailure("its rights", "missing: CAP_NET_ADMIN (to hear of process starts)");
    Remove("4711/status");
    ExpectWarning("its rights", "not known");
}

TEST_F(DaemonChecksTest, NamespacesThatBlindItAreFailures) {
    for (const std::string kind : {"user", "pid", "net"}) {
        Link("4711/ns/" + kind, kind + ":[4026539999]");
        ExpectFailure("its " + kind + " namespace", "not the machine's initial one");
    }
    for (const std::string kind : {"mnt", "cgroup"}) {
        Link("4711/ns/" + kind, kind + ":[4026539999]");
        ExpectWarning("its " + kind + " namespace", "not the machine's initial one");
    }
}

TEST_F(DaemonChecksTest, AContainersPidOneIsNotTheMachines) {
    for (const std::string kind : {"user", "pid", "net"}) {
        Link("1/ns/" + kind, kind + ":[4026539999]");
        Link("4711/ns/" + kind, kind + ":[4026539999]");
    }
    ExpectFailure("its user namespace", "not the machine's initial one");
    ExpectFailure("its pid namespace", "not the machine's initial one");
    ExpectOk("its net namespace", "that of pid 1"); // its number tells nothing on older kernels
}

TEST_F(DaemonChecksTest, NamespacesThatCannotBeReadAreNotKnown) {
    Remove("1/ns");
    Link("4711/ns/net", "net:[4026539999]");
    ExpectWarning("its net namespace", "not known");
    ExpectOk("its pid namespace");
    Remove("4711/ns");
    ExpectWarning("its pid namespace", "not known");
}

TEST_F(DaemonChecksTest, ItNeedsManyOpenFiles) {
    const auto limit = [this](const std::string& soft) {
        proc.Write("4711/limits", "Limit\nMax open files            " + soft + "                 4096  files\n");
    };
    limit("unlimited");
    ExpectOk("its open files");
    limit("512");
    ExpectWarning("its open files", "1 open of at most 512");
    limit("255");
    ExpectFailure("its open files", "1 open of at most 255");
    limit("1024");
    for (int fd = 1; fd < 900; ++fd) {
        proc.Write("4711/fd/" + std::to_string(fd), "");
    }
    ExpectWarning("its open files", "900 open of at most 1024");
    Remove("4711/limits");
    ExpectWarning("its open files", "not known");
}

TEST_F(DaemonChecksTest, SomebodyLooksAfterIt) {
    ExpectOk("its service", "with a watchdog");
    proc.Write("4711/environ", std::string("NOTIFY_SOCKET=/run/n\0", 21));
    ExpectWarning("its service", "without a watchdog");
    proc.Write("4711/environ", std::string("X_NOTIFY_SOCKET=/run/n\0", 23));
    ExpectWarning("its service", "not started by a service manager");
    Remove("4711/environ");
    ExpectWarning("its service", "not known");
}

} // namespace
} // namespace DoctorTest
