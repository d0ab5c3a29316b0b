#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace Bench {

// The least that anybody can do who wants to know of programs that start: a thread that takes one exec
// event after the other from the kernel's proc connector and calls `onExec(pid, timestampNs)`, the time
// being the kernel's (CLOCK_MONOTONIC). It asks the kernel for exec events only, unless told otherwise; Linux 6.6
// and later grant that.
class BareLoop {
public:
    using OnExec = std::function<void(int pid, std::uint64_t timestampNs)>;

    enum class Kinds {
        Execs,
        ForksExecsAndExits, // forks and exits are received and dropped
    };

    // Listens when it returns. Throws where that is not allowed.
    explicit BareLoop(OnExec onExec, Kinds kinds = Kinds::Execs);
    ~BareLoop();
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    // How often the kernel dropped events.
    std::uint64_t CountOverflows() const { return mOverflows.load(); }

private:
    void Listen(std::uint32_t operation, std::uint32_t eventKinds) const;
    void Run();

    const OnExec mOnExec;
    int mFd = -1;
    std::atomic<bool> mStopping{false};
    std::atomic<std::uint64_t> mOverflows{0};
    std::thread mThread;
};

// A second thread that does something with each pid that it is told: reading and judging are two threads in
// whatever is not to lose events, and a thread that is woken takes its time.
class SecondThread {
public:
    explicit SecondThread(std::function<void(int pid)> act);
    ~SecondThread();
    SecondThread(const SecondThread&) = delete;
    SecondThread& operator=(const SecondThread&) = delete;

    void Tell(int pid) const;

private:
    std::array<int, 2> mPipe{};
    std::thread mThread;
};

} // namespace Bench
