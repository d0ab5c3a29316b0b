#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <thread>

namespace Bench {

// The least that anybody can do who wants to know of programs that start: a thread that takes one exec
// event after the other from the kernel's proc connector and calls `onExec(pid, timestampNs)`, the time
// being the kernel's (CLOCK_MONOTONIC). It asks the kernel for exec events only, which Linux 6.6 and later
// grant.
class BareLoop {
public:
    using OnExec = std::function<void(int pid, std::uint64_t timestampNs)>;

    // Listens when it returns. Throws where that is not allowed.
    explicit BareLoop(OnExec onExec);
    ~BareLoop();
    BareLoop(const BareLoop&) = delete;
    BareLoop& operator=(const BareLoop&) = delete;

    // How often the kernel dropped events.
    std::uint64_t CountOverflows() const { return mOverflows.load(); }

private:
    void Listen(std::uint32_t operation, bool execOnly) const;
    void Run();

    const OnExec mOnExec;
    int mFd = -1;
    std::atomic<bool> mStopping{false};
    std::atomic<std::uint64_t> mOverflows{0};
    std::thread mThread;
};

} // namespace Bench
