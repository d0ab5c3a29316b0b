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

#include "support/WaitFor.h"

namespace TestSupport {

// Moves the calling process into the control group whose cgroup.procs file is named. Async-signal-safe,
// for use between fork and exec.
inline bool JoinCgroup(const char* procsFile) {
    const int fd = open(procsFile, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool done = write(fd, "0", 1) == 1;
    close(fd);
    return done;
}

// A program started inside a control group, with the times of its exec and of its death.
//
// The instant of the exec is taken by the child just before it calls exec, that of the death when its
// pidfd becomes readable.
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
        if (mPid < 0) {
            close(execPipe[0]);
            // Nobody may take -1 for a process: a signal to it goes to all that there are.
            throw std::runtime_error("cannot fork for " + command.front() + ": " + std::strerror(errno));
        }
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
    // What the child says over a close-on-exec pipe before it calls exec, and again with an error when
    // that failed.
    struct Word {
        Clock::time_point time;
        int error = 0;
    };

    [[noreturn]] static void RunChild(const std::string& procs, char** arguments, int stdinFd, bool quiet,
                                      int reportFd) {
        const int null = open("/dev/null", O_RDWR);
        dup2(stdinFd >= 0 ? stdinFd : null, STDIN_FILENO);
        if (quiet) {
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
        }
        if (procs.empty() || JoinCgroup(procs.c_str())) {
            Say(reportFd, 0);
            execvp(arguments[0], arguments);
        }
        Say(reportFd, errno);
        _exit(127);
    }

    static void Say(int fd, int error) {
        const Word word{Clock::now(), error};
        static_cast<void>(write(fd, &word, sizeof(word)) < 0);
    }

    void AwaitExec(int fd, const std::string& program) {
        mPidFd = static_cast<int>(syscall(SYS_pidfd_open, mPid, 0));
        Word word;
        while (read(fd, &word, sizeof(word)) == sizeof(word) && word.error == 0) {
            mExeced = word.time;
        }
        mEnded = mExeced;
        close(fd);
        if (word.error != 0) {
            waitpid(mPid, &mStatus, 0);
            mReaped = true;
            throw std::runtime_error("cannot start " + program + ": " + std::strerror(word.error));
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
