#pragma once

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/sched.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/TempCgroup.h"

namespace TestSupport {

// A child of the test, killed and reaped at the end of the scope at the latest.
class ChildProcess {
public:
    // A program, started the way most are: the path and its arguments, no search path.
    static ChildProcess Spawn(const std::vector<std::string>& words) {
        pid_t pid = 0;
        std::vector<char*> argv = ToArgv(words);
        const int error = posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
        if (error != 0) {
            throw std::runtime_error("cannot start " + words.front());
        }
        return ChildProcess(pid);
    }

    // A program that is a member of the group before it begins.
    static ChildProcess SpawnIn(const TempCgroup& group, const std::vector<std::string>& words) {
        std::vector<char*> argv = ToArgv(words);
        return ForkIn(group, [&argv] { execv(argv[0], argv.data()); });
    }

    // A copy of the test that runs `body` and exits with 127 when that returns. A test that has more
    // than one thread may only do there what a signal handler may.
    static ChildProcess Fork(const std::function<void()>& body) {
        const pid_t pid = fork();
        if (pid < 0) {
            throw std::runtime_error("cannot fork");
        }
        if (pid == 0) {
            body();
            _exit(127);
        }
        return ChildProcess(pid);
    }

    // The same in the group: `body` begins once the copy is a member.
    static ChildProcess ForkIn(const TempCgroup& group, const std::function<void()>& body) {
        int gate[2];
        if (pipe(gate) != 0) {
            throw std::runtime_error("no pipe");
        }
        ChildProcess child = Fork([&] {
            close(gate[1]);
            char go = 0;
            if (read(gate[0], &go, 1) == 1) {
                body();
            }
        });
        close(gate[0]);
        group.Add(child.Pid());
        const bool opened = write(gate[1], "x", 1) == 1;
        close(gate[1]);
        if (!opened) {
            throw std::runtime_error("the child is gone");
        }
        return child;
    }

    // The same program as the process of that number, which nobody must bear: what happens by chance when the
    // kernel has come round to a number, made to happen at once (clone3(2), set_tid; needs CAP_SYS_ADMIN).
    static ChildProcess SpawnAs(pid_t pid, const TempCgroup& group, const std::vector<std::string>& words) {
        std::vector<char*> argv = ToArgv(words);
        const int folder = open(group.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        clone_args args{};
        args.flags = CLONE_INTO_CGROUP;
        args.exit_signal = SIGCHLD;
        args.set_tid = reinterpret_cast<std::uint64_t>(&pid);
        args.set_tid_size = 1;
        args.cgroup = static_cast<std::uint64_t>(folder);
        const long child = syscall(SYS_clone3, &args, sizeof args);
        if (child == 0) {
            execv(argv[0], argv.data());
            _exit(127);
        }
        const int error = errno;
        close(folder);
        if (child < 0) {
            throw std::runtime_error("no process " + std::to_string(pid) + " can be made: " + std::strerror(error));
        }
        return ChildProcess(pid);
    }

    ChildProcess(ChildProcess&& other) noexcept : mPid(std::exchange(other.mPid, 0)) {}
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ~ChildProcess() { End(); }

    int Pid() const { return mPid; }

    // True while it has not been reaped and can still be found. Does not reap.
    bool IsRunning() const {
        siginfo_t info{};
        return mPid > 0 && waitid(P_PID, static_cast<id_t>(mPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }

    // Waits for its end, reaps it and returns the wait status (wait(2)).
    int Wait() {
        int status = 0;
        while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
        }
        mPid = 0;
        return status;
    }

    // Kills and reaps it, if that has not been done.
    void End() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            Wait();
        }
    }

private:
    explicit ChildProcess(pid_t pid) : mPid(pid) {}

    static std::vector<char*> ToArgv(const std::vector<std::string>& words) {
        std::vector<char*> argv;
        for (const std::string& word : words) {
            argv.push_back(const_cast<char*>(word.c_str()));
        }
        argv.push_back(nullptr);
        return argv;
    }

    pid_t mPid;
};

} // namespace TestSupport
