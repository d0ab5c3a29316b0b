#include "exec/Starter.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/ScopedProcess.h"

namespace Bench {

namespace {

constexpr int PATIENCE_MS = 10000;
constexpr int CANNOT_EXECUTE = 126;

std::vector<char*> Arguments(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    return arguments;
}

void RunOnce(const std::string& program) {
    std::vector<char*> arguments = Arguments({program});
    pid_t pid = 0;
    const int result = posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments.data(), environ);
    int status = 0;
    if (result != 0 || waitpid(pid, &status, 0) != pid || status != 0) {
        throw std::runtime_error(program + " does not run");
    }
}

} // namespace

std::uint64_t NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
}

SharedMemory::SharedMemory() {
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    mShared = new (memory) Shared;
}

SharedMemory::~SharedMemory() {
    munmap(mShared, sizeof(Shared));
}

// In the process that is the parent of all.
pid_t Starter::Start(const Command& command) const {
    const std::vector<char*> arguments = Arguments(command);
    mShared->execNs.store(0);
    const pid_t pid = fork();
    if (pid == 0) {
        mShared->pid.store(getpid());
        mShared->execNs.store(NowNs());
        execv(arguments[0], arguments.data());
        _exit(CANNOT_EXECUTE);
    }
    if (pid < 0) {
        // Nobody may take -1 for a process: a signal to it goes to all that there are.
        throw std::runtime_error("cannot fork for " + command.front());
    }
    return pid;
}

// The time from its exec to its death. Throws when nobody has killed it, having done so.
std::uint64_t Starter::AwaitKill(pid_t pid) const {
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pollfd waited{pidfd, POLLIN, 0};
    const bool ended = poll(&waited, 1, PATIENCE_MS) == 1;
    const std::uint64_t endNs = NowNs();
    close(pidfd);
    if (!ended) {
        kill(pid, SIGKILL);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!ended || !WIFSIGNALED(status)) {
        throw std::runtime_error("a program was not killed");
    }
    return endNs - mShared->execNs.load();
}

std::vector<std::chrono::nanoseconds> Starter::RunUntilKilled(const std::vector<Command>& commands,
                                                              std::chrono::milliseconds pause) {
    Await(ForkInto(mCgroup, [&] {
        for (std::size_t i = 0; i < commands.size(); ++i) {
            std::this_thread::sleep_for(pause);
            mShared->tookNs.at(i) = AwaitKill(Start(commands[i]));
        }
    }));
    std::vector<std::chrono::nanoseconds> took;
    for (std::size_t i = 0; i < commands.size(); ++i) {
        took.emplace_back(mShared->tookNs.at(i));
    }
    return took;
}

void Starter::RunFor(const Command& command, int times, std::chrono::microseconds lifetime) {
    Await(ForkInto(mCgroup, [&] {
        for (int i = 0; i < times; ++i) {
            const pid_t pid = Start(command);
            while (mShared->execNs.load() == 0) {
                std::this_thread::yield();
            }
            std::this_thread::sleep_for(lifetime);
            kill(pid, SIGKILL);
            int status = 0;
            if (waitpid(pid, &status, 0) != pid || !WIFSIGNALED(status)) {
                throw std::runtime_error(command.front() + " does not run");
            }
        }
    }));
}

pid_t ForkInto(const std::string& cgroup, const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    int status = 1;
    try {
        if (TestSupport::JoinCgroup((cgroup + "/cgroup.procs").c_str())) {
            body();
            status = 0;
        }
    } catch (const std::exception&) {
        status = 1;
    }
    _exit(status);
}

void Await(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("a process of the bench failed");
    }
}

std::chrono::nanoseconds RunInARow(const std::string& cgroup, const std::string& program, int count) {
    const SharedMemory took;
    Await(ForkInto(cgroup, [&] {
        const std::uint64_t begin = NowNs();
        for (int i = 0; i < count; ++i) {
            RunOnce(program);
        }
        took->execNs.store(NowNs() - begin);
    }));
    return std::chrono::nanoseconds(took->execNs.load());
}

} // namespace Bench
