#include "framework/EventWaiter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Framework {

namespace {

// True when the descriptor became readable in time. A caught signal does not shorten the wait.
bool WaitReadable(int fd, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    pollfd waited{fd, POLLIN, 0};
    for (int leftMs = std::max(timeoutMs, 0);;) {
        const int ready = poll(&waited, 1, leftMs);
        if (ready >= 0 || errno != EINTR) {
            return ready > 0;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        leftMs = std::max(static_cast<int>(left.count()), 0);
    }
}

// Twice as long for each wait that ended without an event, up to the limit.
int StretchWait(int timeoutMs, unsigned int idleWaits) {
    constexpr unsigned int MAX_DOUBLINGS = 10;
    const long stretched = static_cast<long>(timeoutMs) << std::min(idleWaits, MAX_DOUBLINGS);
    const long limit = std::max(timeoutMs, EventWaiter::MAX_IDLE_WAIT_MS);
    return static_cast<int>(std::min(stretched, limit));
}

} // namespace

Event::Event() : mFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (mFd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Event::~Event() {
    close(mFd);
}

// The flag stands for "a wake-up is under way or not yet noticed", the eventfd for the wake-up.
//
//   Signal   flag up; who found it down writes the eventfd
//   Clear    eventfd emptied, then flag down
//
// The eventfd must be emptied first: were the flag lowered first, a Signal in between would write a
// wake-up that Clear then swallows, and with the flag up again no later Signal would write another.
// The other way round a Signal in between finds the flag still up and writes nothing, and needs not:
// Clear's exchange comes after it and acquires what it released, so the caller of Clear sees what was
// signalled when it looks at the queue next.
void Event::Signal() {
    if (!mSignalled.exchange(true, std::memory_order_acq_rel)) {
        const std::uint64_t one = 1;
        // Can only fail when the count is at its limit, and then the event is readable already.
        [[maybe_unused]] const ssize_t written = write(mFd, &one, sizeof one);
    }
}

void Event::Clear() {
    std::uint64_t count = 0;
    // Fails, without effect, when there is no wake-up to take back.
    [[maybe_unused]] const ssize_t taken = read(mFd, &count, sizeof count);
    mSignalled.exchange(false, std::memory_order_acq_rel);
}

int EventWaiter::WaitAndHandleEvent(int timeoutMs, int max) {
    if (!WaitReadable(mEvent.GetFd(), StretchWait(timeoutMs, mIdleWaits))) {
        ++mIdleWaits;
        return -1;
    }
    mIdleWaits = 0;
    // Before the queue is looked at: a message that comes in behind the look raises the event again.
    mEvent.Clear();
    const int handled = mHandler(max);
    if (handled >= max) {
        mEvent.Signal();
    }
    return handled;
}

} // namespace Framework
