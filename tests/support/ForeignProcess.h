#pragma once

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/WaitFor.h"

namespace TestSupport {

// How a ForeignProcess is started.
struct ForeignStart {
    // The path of the program and its arguments; there is no search path.
    std::vector<std::string> words;
    // Where it starts; the test's own folder when empty.
    std::string folder = {};
    // Under whose ids it runs.
    uid_t uid = 0;
    gid_t gid = 0;
};

// A program that the test started but whose parent it is not, so that the agent does not take it for
// one of its own: a keeper in between starts it, waits for it and reports its end.
//
// Its standard input is a pipe that stays open and empty as long as this object lives, its standard
// output one that AwaitLine reads. It is past its exec when the constructor returns. It ends with this
// object, or with the test.
class ForeignProcess {
public:
    explicit ForeignProcess(const ForeignStart& start) {
        Pipe exec(O_CLOEXEC);
        Pipe input(O_CLOEXEC);
        Pipe output(O_CLOEXEC);
        std::vector<char*> argv;
        for (const std::string& word : start.words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        mKeeper = fork();
        if (mKeeper == 0) {
            Keep(start, argv.data(), exec, input, output);
        }
        exec.CloseWriter();
        pid_t pid = 0;
        int error = 0;
        const bool began = read(exec.reader, &pid, sizeof(pid)) == sizeof(pid);
        const bool failed = !began || read(exec.reader, &error, sizeof(error)) != 0;
        mPidFd = began ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
        if (failed || mPidFd < 0) {
            waitpid(mKeeper, nullptr, 0);
            throw std::runtime_error("cannot start " + start.words.front());
        }
        mPid = pid;
        mInput = std::exchange(input.writer, -1);
        mOutput = std::exchange(output.reader, -1);
    }
    ~ForeignProcess() {
        End();
        close(mPidFd);
        close(mInput);
        close(mOutput);
    }
    ForeignProcess(const ForeignProcess&) = delete;
    ForeignProcess& operator=(const ForeignProcess&) = delete;

    int Pid() const { return mPid; }
    // The keeper.
    int ParentPid() const { return mKeeper; }

    // Kills it unless it has ended, and returns when no trace of it is left in /proc.
    void End() {
        if (mKeeper > 0) {
            syscall(SYS_pidfd_send_signal, mPidFd, SIGKILL, nullptr, 0);
            Wait();
        }
    }

    // Waits for its end: its exit status, or 128 + N when signal N ended it.
    int Wait() {
        int status = 0;
        while (waitpid(mKeeper, &status, 0) < 0 && errno == EINTR) {
        }
        mKeeper = 0;
        return WEXITSTATUS(status);
    }

    // True when it writes a line before the deadline.
    bool AwaitLine() const {
        char byte = 0;
        while (byte != '\n') {
            pollfd readable{mOutput, POLLIN, 0};
            const auto deadline = std::chrono::duration_cast<std::chrono::milliseconds>(DEADLINE);
            if (poll(&readable, 1, static_cast<int>(deadline.count())) != 1 || read(mOutput, &byte, 1) != 1) {
                return false;
            }
        }
        return true;
    }

private:
    struct Pipe {
        explicit Pipe(int flags) {
            int ends[2];
            if (pipe2(ends, flags) != 0) {
                throw std::runtime_error("no pipe");
            }
            reader = ends[0];
            writer = ends[1];
        }
        ~Pipe() {
            if (reader >= 0) {
                close(reader);
            }
            CloseWriter();
        }
        Pipe(const Pipe&) = delete;
        Pipe& operator=(const Pipe&) = delete;

        void CloseWriter() {
            if (writer >= 0) {
                close(writer);
            }
            writer = -1;
        }

        int reader = -1;
        int writer = -1;
    };

    // Only what a signal handler may do: the test has threads.
    [[noreturn]] static void Keep(const ForeignStart& start, char** argv, const Pipe& exec, const Pipe& input,
                                  const Pipe& output) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const pid_t pid = fork();
        if (pid == 0) {
            const pid_t self = getpid();
            bool ready = write(exec.writer, &self, sizeof(self)) == sizeof(self);
            ready = ready && dup2(input.reader, STDIN_FILENO) == STDIN_FILENO;
            ready = ready && dup2(output.writer, STDOUT_FILENO) == STDOUT_FILENO;
            ready = ready && (start.folder.empty() || chdir(start.folder.c_str()) == 0);
            ready = ready && syscall(SYS_setgroups, 0, nullptr) == 0;
            ready = ready && syscall(SYS_setresgid, start.gid, start.gid, start.gid) == 0;
            ready = ready && syscall(SYS_setresuid, start.uid, start.uid, start.uid) == 0;
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (ready) {
                execv(argv[0], argv);
            }
            const int error = errno;
            static_cast<void>(write(exec.writer, &error, sizeof(error)) < 0);
            _exit(127);
        }
        for (const int end : {exec.reader, exec.writer, input.reader, input.writer, output.reader, output.writer}) {
            close(end);
        }
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
    }

    pid_t mKeeper = 0;
    pid_t mPid = 0;
    int mPidFd = -1;
    int mInput = -1;
    int mOutput = -1;
};

} // namespace TestSupport
