#include "ctl/top/Interrupts.h"

#include <cerrno>

#include <poll.h>

namespace Ctl::Top {

namespace {

volatile std::sig_atomic_t endWanted = 0;

} // namespace

Interrupts::Interrupts() {
    endWanted = 0;
    sigset_t blocked;
    sigemptyset(&blocked);
    struct sigaction action {};
    action.sa_handler = [](int) { endWanted = 1; };
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaddset(&blocked, SIGNALS[i]);
        sigaction(SIGNALS[i], &action, &mOldActions[i]);
    }
    sigprocmask(SIG_BLOCK, &blocked, &mOldMask);
    mWaitMask = mOldMask;
    for (const int signal : SIGNALS) {
        sigdelset(&mWaitMask, signal);
    }
}

Interrupts::~Interrupts() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], &mOldActions[i], nullptr);
    }
    sigprocmask(SIG_SETMASK, &mOldMask, nullptr);
}

Interrupts::Wake Interrupts::Wait(int fd, std::chrono::milliseconds time) const {
    constexpr long MS_A_SECOND = 1000;
    constexpr long NS_A_MS = 1000000;
    const timespec limit{time.count() / MS_A_SECOND, time.count() % MS_A_SECOND * NS_A_MS};
    pollfd waited{fd, POLLIN, 0}; // one of -1 is passed over
    const int count = ppoll(&waited, 1, &limit, &mWaitMask);
    if (count < 0) {
        return errno == EINTR ? Wake::SIGNAL : Wake::GONE;
    }
    if (count == 0) {
        return Wake::TIME;
    }
    return (waited.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? Wake::GONE : Wake::INPUT;
}

bool Interrupts::WantsEnd() {
    return endWanted != 0;
}

} // namespace Ctl::Top
