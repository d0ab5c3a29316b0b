#pragma once

#include <cerrno>
#include <filesystem>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/doctor/Finding.h"
#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"

namespace Ctl::Doctor {

inline void PrintTo(const Finding& finding, std::ostream* stream) {
    *stream << static_cast<int>(finding.grade) << " [" << finding.found << "] -> [" << finding.remedy << "]";
}

} // namespace Ctl::Doctor

namespace DoctorTest {

using namespace Ctl::Doctor;

constexpr std::int64_t NOW = 1767225600; // 2026-01-01

// A machine, an installation and a daemon that are well in everything. A test breaks one thing.
class SubjectTest : public testing::Test {
protected:
    SubjectTest() {
        subject.root = root.Path() + "/";
        MakeMachine();
        MakeInstallation();
        MakeDaemon();
    }

    // What the check of that name comes to.
    Finding Examine(const std::string& name) const {
        for (const Checks& checks : {MachineChecks(), StateChecks(), DaemonChecks(subject), HealthChecks(subject)}) {
            for (const Check& check : checks) {
                if (check.name == name) {
                    return check.run(subject);
                }
            }
        }
        ADD_FAILURE() << "there is no check " << name;
        return {};
    }

    void ExpectOk(const std::string& name, const std::string& found = "") const {
        Expect(name, Grade::OK, found);
        EXPECT_EQ(Examine(name).remedy, "") << name;
    }
    void ExpectWarning(const std::string& name, const std::string& found) const {
        Expect(name, Grade::WARNING, found);
        EXPECT_NE(Examine(name).remedy, "") << name;
    }
    void ExpectFailure(const std::string& name, const std::string& found) const {
        Expect(name, Grade::FAILURE, found);
        EXPECT_NE(Examine(name).remedy, "") << name;
    }

    void Link(const std::string& name, const std::string& target) const {
        const std::filesystem::path path = proc / name;
        std::filesystem::create_directories(path.parent_path());
        std::filesystem::remove(path);
        std::filesystem::create_symlink(target, path);
    }

    void Remove(const std::string& name) const { std::filesystem::remove_all(proc / name); }

    void WriteCapabilities(const std::string& process, const std::string& bits) const {
        proc.Write(process + "/status", "Name:\tx\nCapPrm:\t0000000000000000\nCapEff:\t" + bits + "\n");
    }

    void WriteMounts(const std::string& procOptions, bool cgroup = true) const {
        proc.Write("self/mountinfo",
                   "22 27 0:21 / /proc rw,relatime shared:1 - proc proc " + procOptions + "\n" +
                       (cgroup ? "23 27 0:22 / " + proc.Path() + "/c\\040g rw - cgroup2 cgroup2 rw\n" : ""));
    }

    static constexpr const char* ALL_CAPABILITIES = "000001ffffffffff";

    TestSupport::TempDir proc;
    TestSupport::TempRoot root;
    Subject subject;
    Space space{1ULL << 40U, 1ULL << 41U, 1U << 20U, 1U << 21U, false};
    Clock clock{NOW, true};
    std::string connectorProblem;
    std::string fanotifyProblem;
    std::string pidfdProblem;
    bool fileErrors = true;

private:
    void Expect(const std::string& name, Grade grade, const std::string& found) const {
        const Finding finding = Examine(name);
        EXPECT_EQ(finding.grade, grade) << name << ": " << testing::PrintToString(finding);
        EXPECT_THAT(finding.found, testing::HasSubstr(found)) << name;
    }

    void MakeMachine() {
        subject.machine.proc = proc.Path() + "/";
        subject.machine.tryProcConnector = [this] { return connectorProblem; };
        subject.machine.tryFanotify = [this] { return fanotifyProblem; };
        subject.machine.tryPidfd = [this] { return pidfdProblem; };
        subject.machine.hasFanotifyFileErrors = [this] { return fileErrors; };
        subject.machine.readClock = [this] { return clock; };
        subject.machine.measureSpace = [this](const std::string& folder, Space& measured) {
            measured = space;
            return std::filesystem::exists(folder) ? 0 : ENOENT;
        };
        proc.Write("sys/kernel/osrelease", "6.12.5-amd64\n");
        proc.Write("sys/kernel/pid_max", "4194304\n");
        proc.Write("sys/fs/fanotify/max_queued_events", "16384\n");
        proc.Write("sys/fs/fanotify/max_user_marks", "20000\n");
        proc.Write("sys/fs/fanotify/max_user_groups", "128\n");
        proc.Write("sys/net/core/rmem_max", "212992\n");
        proc.Write("sys/fs/file-nr", "1000\t0\t100000\n");
        std::filesystem::create_directory(proc / "c g");
        WriteMounts("rw");
        WriteCapabilities("self", ALL_CAPABILITIES);
    }

    void MakeInstallation() const {
        for (const char* file :
             {"bin/corvalentd", "lib/libsdk.so", "module/libwhitelist_module.so", "module/libprocess_collect_module.so",
              "module/libfilenotify_module.so", "module/libisolate_module.so", "module/libdata_comm_module.so"}) {
            root.Write(file, "");
        }
    }

    void MakeDaemon() {
        WriteCapabilities("4711", ALL_CAPABILITIES);
        for (const char* kind :
             {"user:[4026531837]", "pid:[4026531836]", "net:[4026531833]", "mnt:[4026531832]", "cgroup:[4026531835]"}) {
            const std::string name = std::string(kind).substr(0, std::string(kind).find(':'));
            Link("1/ns/" + name, kind);
            Link("4711/ns/" + name, kind);
        }
        Link("4711/exe", "/usr/local/corvalent/bin/corvalentd");
        proc.Write("4711/limits", "Limit                     Soft Limit           Hard Limit           Units\n"
                                  "Max cpu time              unlimited            unlimited            seconds\n"
                                  "Max open files            65536                65536                files\n");
        proc.Write("4711/fd/0", "");
        using std::string_literals::operator""s;
        proc.Write("4711/environ", "PATH=/bin\0NOTIFY_SOCKET=/run/n\0WATCHDOG_USEC=30000000\0"s);
        subject.daemonMissing = false;
        SDK::JsonUtils::ParseJsonStr(R"({
            "pid": 4711, "uptime_seconds": 61, "version": ")" CORVALENT_VERSION R"(", "mode": 3,
            "mode_name": "detecting", "desired_detect": true,
            "policy": {"hash": "h1", "enabled": true},
            "lists": {"local": 60, "server": 0, "os_preset": 0, "service_preset": 0},
            "blocking": {"policy": false, "entries": 50, "floor": 50, "in_force": false},
            "files": {"marks": 2, "failed_marks": 0},
            "tasks": [{"name": "a_task", "state": "running", "depth": 1, "capacity": 1024}],
            "counters": {"events.lost": 0}})",
                                     subject.status);
        subject.policy.accepted = true;
    }
};

} // namespace DoctorTest
