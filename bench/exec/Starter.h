#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Bench {

// CLOCK_MONOTONIC.
std::uint64_t NowNs();

// Memory that a process shares with the children it forks; zero at first.
struct Shared {
    std::atomic<int> pid{0};              // of the child that is about to exec
    std::atomic<std::uint64_t> execNs{0}; // when it did
    std::array<std::uint64_t, 64> tookNs{};
};

class SharedMemory {
public:
    SharedMemory();
    ~SharedMemory();
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    Shared* operator->() const { return mShared; }

private:
    Shared* mShared;
};

using Command = std::vector<std::string>;

// Starts programs one after the other in a control group, as a shell there would: their parent is a process of
// its own in the group.
class Starter {
public:
    // `cgroup` is the group's folder.
    explicit Starter(std::string cgroup) : mCgroup(std::move(cgroup)) {}

    // The pid of the program that runs or is about to.
    int GetPid() const { return mShared->pid.load(); }

    // For each, how long it took from execve until its parent saw that somebody had killed it. Throws when one
    // was not killed. Each starts that long after the end of the one before. At most as many commands as Shared has
    // room for.
    std::vector<std::chrono::nanoseconds> RunUntilKilled(const std::vector<Command>& commands,
                                                         std::chrono::milliseconds pause);

    // Runs it so often, and kills it each time when it has run for that long.
    void RunFor(const Command& command, int times, std::chrono::microseconds lifetime);

private:
    pid_t Start(const Command& command) const;
    std::uint64_t AwaitKill(pid_t pid) const;

    const std::string mCgroup;
    const SharedMemory mShared;
};

// Runs `body` in a process of its own, a copy of this one, inside the control group. Does not wait for its end.
pid_t ForkInto(const std::string& cgroup, const std::function<void()>& body);

// Waits for the child's end; throws unless it exited with status 0.
void Await(pid_t child);

// Starts the program `count` times, each when the one before has ended, as fast as that goes; as its parent a
// process of its own inside the control group. How long all of them took.
std::chrono::nanoseconds RunInARow(const std::string& cgroup, const std::string& program, int count);

} // namespace Bench
