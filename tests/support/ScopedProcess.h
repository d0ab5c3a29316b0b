#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/Cgroup.h"

namespace TestSupport {

// A program started inside a control group, with the times of its exec and of its death.
//
// The instant of the exec is the one at which the kernel closes a close-on-exec pipe of the child,
// that of the death the one at which its pidfd becomes readable.
class ScopedProcess {
public:
    using Clock = std::chrono::steady_clock;

    // Throws when the program cannot be started. Its standard input is `stdinFd`, or /dev/null; its
    // output goes where the test's goes unless `quiet`.
    ScopedProcess(const std::string& cgroupPath, std::vector<std::string> command, int stdinFd = -1,
                  bool quiet = true) {
        const std::string procs = cgroupPath.empty() ? "" : cgroupPath + "/cgroup.procs";
        std::vector<char*> arguments;
        for (std::string& word : command) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        int execPipe[2];
        if (pipe2(execPipe, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
        mPid = fork();
        if (mPid == 0) {
            RunChild(procs, arguments.data(), stdinFd, quiet, execPipe[1]);
        }
        close(execPipe[1]);
        AwaitExec(execPipe[0], command.front());
    }
    ~ScopedProcess() {
        if (!mReaped) {
            kill(mPid, SIGKILL);
            Wait(DEADLINE);
        }
        if (mPidFd >= 0) {
            close(mPidFd);
        }
    }
    ScopedProcess(const ScopedProcess&) = delete;
    ScopedProcess& operator=(const ScopedProcess&) = delete;

    int Pid() const { return mPid; }

    // True when the process ended within the time; its status can be asked for then.
    bool Wait(std::chrono::milliseconds deadline) {
        if (mReaped) {
            return true;
        }
        pollfd ended{mPidFd, POLLIN, 0};
        if (poll(&ended, 1, static_cast<int>(deadline.count())) <= 0) {
            return false;
        }
        mEnded = Clock::now();
        mReaped = waitpid(mPid, &mStatus, 0) == mPid;
        return mReaped;
    }

    // Without waiting.
    bool HasEnded() { return Wait(std::chrono::milliseconds(0)); }

    bool WasKilled() const { return mReaped && WIFSIGNALED(mStatus) && WTERMSIG(mStatus) == SIGKILL; }
    bool ExitedWith(int status) const { return mReaped && WIFEXITED(mStatus) && WEXITSTATUS(mStatus) == status; }

    // From the exec to the end.
    std::chrono::microseconds Lifetime() const {
        return std::chrono::duration_cast<std::chrono::microseconds>(mEnded - mExeced);
    }

    void Kill(int signal) const { kill(mPid, signal); }

private:
    [[noreturn]] static void RunChild(const std::string& procs, char** arguments, int stdinFd, bool quiet,
                                      int reportFd) {
        const int null = open("/dev/null", O_RDWR);
        dup2(stdinFd >= 0 ? stdinFd : null, STDIN_FILENO);
        if (quiet) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        if (procs.empty() || JoinCgroup(procs.c_str())) {
            execvp(arguments[0], arguments);
        }
        const int error = errno;
        static_cast<void>(write(reportFd, &error, sizeof(error)) < 0);
        _exit(127);
    }

    void AwaitExec(int fd, const std::string& program) {
        int error = 0;
        const ssize_t count = read(fd, &error, sizeof(error));
        mExeced = Clock::now();
        mEnded = mExeced;
        close(fd);
        mPidFd = static_cast<int>(syscall(SYS_pidfd_open, mPid, 0));
        if (count != 0) {
            waitpid(mPid, &mStatus, 0);
            mReaped = true;
            throw std::runtime_error("cannot start " + program + ": " + std::strerror(error));
        }
    }

    pid_t mPid = -1;
    int mPidFd = -1;
    int mStatus = 0;
    bool mReaped = false;
    Clock::time_point mExeced;
    Clock::time_point mEnded;
};

} // namespace TestSupport
