#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "support/ChildProcess.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

using SDK::ProcessUtils;
using TestSupport::ChildProcess;
using TestSupport::TempDir;
using TestSupport::TempRoot;
using TestSupport::WaitFor;

namespace {

// The kernel refuses pids above 2^22 (include/linux/threads.h, PID_MAX_LIMIT).
constexpr int IMPOSSIBLE_PID = 4194305;

constexpr int KTHREADD_PID = 2;

bool HasKernelThread() {
    std::string name;
    ProcessUtils::procStatus status;
    return ProcessUtils::GetProcessStatusInfo(KTHREADD_PID, status) == 0 && status.name == "kthreadd";
}

// A copy of sleep(1), so that the image can be named and deleted.
std::string CopyOfSleep(const std::string& path) {
    std::filesystem::copy_file(std::filesystem::canonical("/bin/sleep"), path);
    return path;
}

std::string RealPath(const std::string& path) {
    return std::filesystem::canonical(path).string();
}

// The program as it is once it has begun: for a moment after the start it still has the test's command
// line, then none.
ChildProcess Start(const std::vector<std::string>& words) {
    ChildProcess child = ChildProcess::Spawn(words);
    EXPECT_TRUE(WaitFor([&] {
        std::string cmdline;
        return ProcessUtils::GetProcessCmdline(child.Pid(), cmdline, words[0].size()) == 0 && cmdline == words[0];
    }));
    return child;
}

// The child is dead then, but still has its entry in the process table.
void KillWithoutReaping(const ChildProcess& child) {
    kill(child.Pid(), SIGKILL);
    EXPECT_TRUE(WaitFor([&] { return !child.IsRunning(); }));
}

std::string CmdlineOf(int pid, std::size_t maxBytes) {
    std::string cmdline = "before";
    EXPECT_EQ(ProcessUtils::GetProcessCmdline(pid, cmdline, maxBytes), 0);
    return cmdline;
}

} // namespace

TEST(ProcessExePath, IsTheImageOfAChild) {
    const TempDir dir;
    const std::string image = CopyOfSleep(dir / "a program");
    const ChildProcess child = Start({image, "600"});
    std::string path;
    EXPECT_EQ(ProcessUtils::GetProcessExePath(child.Pid(), path), 0);
    EXPECT_EQ(path, RealPath(image));
}

TEST(ProcessExePath, OfADeletedImageKeepsTheKernelsSuffix) {
    const TempDir dir;
    const std::string image = CopyOfSleep(dir / "program");
    const std::string realPath = RealPath(image);
    const ChildProcess child = Start({image, "600"});
    std::filesystem::remove(image);
    std::string path;
    EXPECT_EQ(ProcessUtils::GetProcessExePath(child.Pid(), path), 0);
    EXPECT_EQ(path, realPath + " (deleted)");
}

TEST(ProcessExePath, OfAKernelThreadIsENOENT) {
    if (!HasKernelThread()) {
        GTEST_SKIP() << "no kernel thread to be seen from this pid namespace";
    }
    std::string path = "before";
    EXPECT_EQ(ProcessUtils::GetProcessExePath(KTHREADD_PID, path), ENOENT);
    EXPECT_EQ(path, "before");
}

TEST(ProcessCmdline, JoinsTheArgumentsWithBlanks) {
    const ChildProcess child = Start({"/bin/sleep", "600", "0.5"});
    EXPECT_EQ(CmdlineOf(child.Pid(), 4096), "/bin/sleep 600 0.5");
}

TEST(ProcessCmdline, IsCutAfterTheLimit) {
    const ChildProcess child = Start({"/bin/sleep", "600"});
    EXPECT_EQ(CmdlineOf(child.Pid(), 14), "/bin/sleep 600");
    EXPECT_EQ(CmdlineOf(child.Pid(), 13), "/bin/sleep 60");
    EXPECT_EQ(CmdlineOf(child.Pid(), 11), "/bin/sleep ");
    EXPECT_EQ(CmdlineOf(child.Pid(), 10), "/bin/sleep");
    EXPECT_EQ(CmdlineOf(child.Pid(), 0), "");
    EXPECT_EQ(CmdlineOf(child.Pid(), SIZE_MAX), "/bin/sleep 600");
}

TEST(ProcessCmdline, LongerThanOnePageIsWhole) {
    const std::string longZero(100000, '0');
    const ChildProcess child = Start({"/bin/sleep", "600", longZero});
    // Not EXPECT_EQ, which would print both.
    EXPECT_TRUE(CmdlineOf(child.Pid(), 1000000) == "/bin/sleep 600 " + longZero);
}

TEST(ProcessCmdline, OnlyTheLastNulIsDropped) {
    const ChildProcess child = Start({"/bin/sh", "-c", "kill -STOP $$", ""});
    EXPECT_EQ(CmdlineOf(child.Pid(), 4096), "/bin/sh -c kill -STOP $$ ");
}

TEST(ProcessCmdline, OfAnExitedProcessIsEmpty) {
    ChildProcess child = Start({"/bin/sleep", "600"});
    KillWithoutReaping(child);
    EXPECT_EQ(CmdlineOf(child.Pid(), 4096), "");
}

TEST(ProcessCmdline, OfAKernelThreadIsEmpty) {
    if (!HasKernelThread()) {
        GTEST_SKIP() << "no kernel thread to be seen from this pid namespace";
    }
    EXPECT_EQ(CmdlineOf(KTHREADD_PID, 4096), "");
}

TEST(ProcessCwd, IsTheWorkingDirectory) {
    const TempDir dir;
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    const ChildProcess child = Start({"/bin/sleep", "600"});
    std::filesystem::current_path(before);
    std::string cwd;
    EXPECT_EQ(ProcessUtils::GetProcessCwd(child.Pid(), cwd), 0);
    EXPECT_EQ(cwd, RealPath(dir.Path()));
}

TEST(ProcessUser, IsTheNameOfTheRealUser) {
    const passwd* entry = getpwuid(getuid());
    ASSERT_NE(entry, nullptr);
    std::string user;
    EXPECT_EQ(ProcessUtils::GetProcessUser(getpid(), user), 0);
    EXPECT_EQ(user, entry->pw_name);
}

TEST(ProcessUser, IsTheNumberWhenTheUserHasNoName) {
    constexpr uid_t NAMELESS = 3123456789;
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    ASSERT_EQ(getpwuid(NAMELESS), nullptr);
    // Real and effective differ: the real one counts.
    const ChildProcess child = ChildProcess::Fork([] {
        if (setresuid(NAMELESS, 0, 0) == 0) {
            pause();
        }
    });
    ProcessUtils::procStatus status;
    EXPECT_TRUE(WaitFor(
        [&] { return ProcessUtils::GetProcessStatusInfo(child.Pid(), status) == 0 && status.uid == NAMELESS; }));
    EXPECT_EQ(status.euid, 0U);
    std::string user;
    EXPECT_EQ(ProcessUtils::GetProcessUser(child.Pid(), user), 0);
    EXPECT_EQ(user, "3123456789");
}

TEST(ProcessStartTime, IsWhenTheChildBegan) {
    const std::int64_t before = std::time(nullptr);
    const ChildProcess child = Start({"/bin/sleep", "600"});
    const std::int64_t after = std::time(nullptr);
    std::int64_t startTime = 0;
    EXPECT_EQ(ProcessUtils::GetProcessStartTime(child.Pid(), startTime), 0);
    // The time of the boot and that since then are each cut to whole seconds.
    EXPECT_GE(startTime, before - 2);
    EXPECT_LE(startTime, after + 1);
}

TEST(ProcessStartTime, IsFoundWhateverTheNameOfTheProcess) {
    const TempDir dir;
    const ChildProcess child = Start({CopyOfSleep(dir / "a) S 1 1 (b"), "600"});
    const ChildProcess plain = Start({"/bin/sleep", "600"});
    std::int64_t startTime = 0;
    std::int64_t plainStartTime = 0;
    EXPECT_EQ(ProcessUtils::GetProcessStartTime(child.Pid(), startTime), 0);
    EXPECT_EQ(ProcessUtils::GetProcessStartTime(plain.Pid(), plainStartTime), 0);
    EXPECT_NEAR(static_cast<double>(startTime), static_cast<double>(plainStartTime), 5);
}

TEST(ProcessStatus, IsThatOfTheChild) {
    const TempDir dir;
    const ChildProcess child = Start({CopyOfSleep(dir / "a-rather-long-program-name"), "600"});
    ProcessUtils::procStatus status;
    ASSERT_TRUE(
        WaitFor([&] { return ProcessUtils::GetProcessStatusInfo(child.Pid(), status) == 0 && status.state == "S"; }));
    EXPECT_EQ(status.name, "a-rather-long-p");
    EXPECT_EQ(status.ppid, getpid());
    EXPECT_EQ(status.uid, getuid());
    EXPECT_EQ(status.euid, geteuid());
    EXPECT_EQ(status.gid, getgid());
    EXPECT_EQ(status.egid, getegid());
}

TEST(ProcessStatus, OfAZombieHasStateZ) {
    ChildProcess child = Start({"/bin/sleep", "600"});
    KillWithoutReaping(child);
    ProcessUtils::procStatus status;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(child.Pid(), status), 0);
    EXPECT_EQ(status.state, "Z");
}

TEST(ProcessStatus, ANameCannotImitateOtherLines) {
    ASSERT_EQ(prctl(PR_SET_NAME, "x\\n\nUid:\t1"), 0);
    ProcessUtils::procStatus status;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(getpid(), status), 0);
    EXPECT_EQ(status.name, "x\\n\nUid:\t1");
    EXPECT_EQ(status.uid, getuid());
}

TEST(ProcessStatus, OfPidOneHasNoParent) {
    ProcessUtils::procStatus status;
    EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(1, status), 0);
    EXPECT_EQ(status.ppid, 0);
    EXPECT_FALSE(status.name.empty());
}

TEST(ProcessInfo, OfAProcessThatIsGoneIsAnErrorAndChangesNothing) {
    ChildProcess child = Start({"/bin/sleep", "600"});
    const int gone = child.Pid();
    child.End();
    for (const int pid : {gone, IMPOSSIBLE_PID, -1, 0}) {
        std::string text = "before";
        EXPECT_EQ(ProcessUtils::GetProcessExePath(pid, text), ENOENT) << pid;
        EXPECT_EQ(ProcessUtils::GetProcessCmdline(pid, text, 100), ENOENT) << pid;
        EXPECT_EQ(ProcessUtils::GetProcessCwd(pid, text), ENOENT) << pid;
        EXPECT_EQ(ProcessUtils::GetProcessUser(pid, text), ENOENT) << pid;
        EXPECT_EQ(text, "before");
        std::int64_t startTime = 7;
        EXPECT_EQ(ProcessUtils::GetProcessStartTime(pid, startTime), ENOENT) << pid;
        EXPECT_EQ(startTime, 7);
        ProcessUtils::procStatus status;
        status.name = "before";
        EXPECT_EQ(ProcessUtils::GetProcessStatusInfo(pid, status), ENOENT) << pid;
        EXPECT_EQ(status.name, "before");
        EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(pid)) << pid;
    }
}

namespace {

// A program that runs, but not as this process's child: the shell in between is its parent.
class Grandchild {
public:
    explicit Grandchild(const std::string& program)
        : mShell(Start({"/bin/sh", "-c", "\"$0\" 600 & wait", program})), mProgram(program) {}
    ~Grandchild() {
        const int pid = Pid();
        if (pid > 0) {
            kill(pid, SIGKILL);
        }
    }
    Grandchild(const Grandchild&) = delete;
    Grandchild& operator=(const Grandchild&) = delete;

    // 0 when it does not come up.
    int Pid() const {
        const std::string children =
            "/proc/" + std::to_string(mShell.Pid()) + "/task/" + std::to_string(mShell.Pid()) + "/children";
        int pid = 0;
        WaitFor([&] {
            pid = std::atoi(TempDir::ReadText(children).c_str());
            std::string path;
            return pid > 0 && ProcessUtils::GetProcessExePath(pid, path) == 0 && path == RealPath(mProgram);
        });
        return pid;
    }

private:
    ChildProcess mShell;
    std::string mProgram;
};

std::string InstallProgram(const TempRoot& root, const std::string& name) {
    std::filesystem::create_directories(root / "bin");
    return CopyOfSleep(root / ("bin/" + name));
}

} // namespace

TEST(AuthorizedProcess, ThisOneAndItsChildrenAre) {
    const ChildProcess child = Start({"/bin/sleep", "600"});
    EXPECT_TRUE(ProcessUtils::IsAuthorizedProcess(getpid()));
    EXPECT_TRUE(ProcessUtils::IsAuthorizedProcess(child.Pid()));
}

TEST(AuthorizedProcess, OthersAreNot) {
    const TempRoot root;
    InstallProgram(root, "corvalentd");
    const Grandchild stranger("/bin/sleep");
    EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(stranger.Pid()));
    EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(1));
}

TEST(AuthorizedProcess, WhateverRunsAnInstalledProgramIs) {
    const TempRoot root;
    const Grandchild daemon(InstallProgram(root, "corvalentd"));
    const Grandchild control(InstallProgram(root, "corvalentctl"));
    EXPECT_TRUE(ProcessUtils::IsAuthorizedProcess(daemon.Pid()));
    EXPECT_TRUE(ProcessUtils::IsAuthorizedProcess(control.Pid()));
}

TEST(AuthorizedProcess, AnotherProgramInTheBinFolderIsNot) {
    const TempRoot root;
    const Grandchild stranger(InstallProgram(root, "stranger"));
    EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(stranger.Pid()));
}

TEST(AuthorizedProcess, AProgramOfTheSameNameElsewhereIsNot) {
    const TempRoot root;
    InstallProgram(root, "corvalentd");
    const TempDir elsewhere;
    std::filesystem::create_directory(elsewhere / "bin");
    const Grandchild stranger(CopyOfSleep(elsewhere / "bin/corvalentd"));
    EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(stranger.Pid()));
}

TEST(AuthorizedProcess, WhatALinkInTheBinFolderLeadsToIsNot) {
    const TempRoot root;
    const std::string program = CopyOfSleep(root / "program");
    std::filesystem::create_directory(root / "bin");
    std::filesystem::create_symlink(program, root / "bin/corvalentd");
    const Grandchild stranger(program);
    EXPECT_FALSE(ProcessUtils::IsAuthorizedProcess(stranger.Pid()));
}
