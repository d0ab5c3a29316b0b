#pragma once

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/Pause.h"

namespace SystemTest {

inline void ExpectToStop(int pid) {
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        SDK::ProcStat stat;
        return SDK::ProcStat::Read(pid, stat) == 0 && stat.state == 'T';
    }));
}

// The daemon does not run for as long as this lives: what happens meanwhile, it judges afterwards. So a test
// comes between a start and its verdict every time, not once in a thousand.
class PausedDaemon {
public:
    explicit PausedDaemon(const Agent& agent) : mPid(agent.GetPid()) { Pause(mPid); }
    ~PausedDaemon() { kill(mPid, SIGCONT); }
    PausedDaemon(const PausedDaemon&) = delete;
    PausedDaemon& operator=(const PausedDaemon&) = delete;

private:
    const pid_t mPid;
};

// Steps of a process of the test's own before it executes a program; one that fails ends it.
namespace step {

inline void Demand(bool done, const char* what) {
    if (!done) {
        std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
        _exit(126);
    }
}

// From here on no mount of this process is seen by anybody else.
inline void EnterOwnMountNamespace() {
    Demand(unshare(CLONE_NEWNS) == 0, "unshare");
    Demand(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

inline void BindOver(const std::string& source, const std::string& target) {
    Demand(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0, "bind mount");
}

} // namespace step

// An attempt to run a program unseen on a host where the agent detects and blocks. The program "known" is
// trusted at its path, the program "evil" is not.
class Attempt : public testing::Test {
protected:
    using Step = std::function<void()>;

    static constexpr const char* FOR_A_MINUTE = "60";

    void Detect(bool block = true) { agent.MakeDetecting({.programs = {known}}, {.block = block}); }

    // Starts the words in the scope, `before` in the same process first. Returns once it has begun.
    TestSupport::ChildProcess Start(const std::vector<std::string>& words, const Step& before = {}) const {
        std::vector<char*> argv;
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        TestSupport::ChildProcess child = TestSupport::ChildProcess::ForkIn(agent.Scope(), [&] {
            if (before) {
                before();
            }
            execv(argv[0], argv.data());
            step::Demand(false, argv[0]);
        });
        EXPECT_TRUE(TestSupport::WaitFor([&] {
            SDK::ProcStat stat;
            return SDK::ProcStat::Read(child.Pid(), stat) == 0 && stat.HasExecuted();
        }));
        return child;
    }
    TestSupport::ChildProcess Start(const std::string& program, const Step& before = {}) const {
        return Start(std::vector<std::string>{program, FOR_A_MINUTE}, before);
    }

    // Reported as this path with this content.
    void ExpectReported(const TestSupport::ChildProcess& process, const std::string& path,
                        const std::string& digest) const {
        const Json::Value info = agent.WaitForAlert(process.Pid())["process_info"];
        EXPECT_EQ(info["process_path"].asString(), path);
        EXPECT_EQ(info["process_hash"].asString(), digest);
    }

    // The same, and killed.
    void ExpectStopped(TestSupport::ChildProcess& process, const std::string& path, const std::string& digest) const {
        ExpectReported(process, path, digest);
        EXPECT_EQ(agent.WaitForAlert(process.Pid())["process_info"]["block"].asInt(), 1);
        ASSERT_TRUE(TestSupport::WaitFor([&] { return !process.IsRunning(); }));
        EXPECT_EQ(process.Wait(), SIGKILL);
    }

    // Judged, not reported, and still there.
    void ExpectLetGo(const TestSupport::ChildProcess& process) {
        agent.DrainEvents();
        EXPECT_EQ(agent.AlertsOf(process.Pid()).size(), 0U);
        EXPECT_TRUE(process.IsRunning());
    }

    static unsigned ModeOf(const std::string& path) {
        struct stat file {};
        EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
        return file.st_mode & 07777U;
    }

    static void CopyOver(const std::string& from, const std::string& to) {
        std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
    }

    // As an intruder would: the content first, then the times that the file had. The last byte of a program is
    // none of its code, so the changed one runs as well.
    static void SetLastByteAndRestoreTimes(const std::string& path, char value) {
        struct stat before {};
        ASSERT_EQ(stat(path.c_str(), &before), 0);
        {
            const SDK::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
            ASSERT_EQ(pwrite(file.Get(), &value, 1, before.st_size - 1), 1);
        }
        const std::array<timespec, 2> times = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
    }

    Agent agent;
    const std::string known = agent.MakeProgram("known");
    const std::string evil = agent.MakeProgram("evil");
    const std::string knownDigest = Sha256Of(known);
    const std::string evilDigest = Sha256Of(evil);
};

} // namespace SystemTest
