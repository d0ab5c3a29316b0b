#include "ctl/Interrupts.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Ctl {

namespace {

// Lock-free, so that a signal handler may use them.
std::atomic<bool> endWanted{false};
std::atomic<int> requestFd{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void TakeRequest(int /*signal*/) {
    const int error = errno;
    const std::uint64_t one = 1;
    endWanted = true;
    // A full counter is readable as well.
    [[maybe_unused]] const ssize_t written = write(requestFd, &one, sizeof(one));
    errno = error;
}

} // namespace

Interrupts::Interrupts() : mRequest(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    endWanted = false;
    requestFd = mRequest.Get();
    struct sigaction action {};
    action.sa_handler = TakeRequest;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], &action, &mOldActions[i]);
        if (SIGNALS[i] == SIGHUP && mOldActions[i].sa_handler == SIG_IGN) {
            sigaction(SIGNALS[i], &mOldActions[i], nullptr);
        }
    }
}

Interrupts::~Interrupts() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], &mOldActions[i], nullptr);
    }
    requestFd = -1;
}

Interrupts::Wake Interrupts::Wait(int fd, std::chrono::milliseconds time) const {
    // One of -1 is passed over.
    std::array<pollfd, 2> waited = {{{mRequest.Get(), POLLIN, 0}, {fd, POLLIN, 0}}};
    const int count = poll(waited.data(), waited.size(), static_cast<int>(time.count()));
    if (count < 0) {
        return errno == EINTR ? Wake::SIGNAL : Wake::GONE;
    }
    if (count == 0) {
        return Wake::TIME;
    }
    if (waited[0].revents != 0) {
        return Wake::SIGNAL;
    }
    return (waited[1].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? Wake::GONE : Wake::INPUT;
}

bool Interrupts::AreThere() {
    return endWanted;
}

} // namespace Ctl
