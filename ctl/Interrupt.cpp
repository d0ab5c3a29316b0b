#include "ctl/Interrupt.h"

#include <atomic>
#include <csignal>

namespace Ctl {

namespace {

// Lock-free, so that a signal handler may set it.
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

} // namespace

// Without SA_RESTART, so that a sleep ends at once.
void WatchForInterrupt() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted.store(true); };
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
}

bool IsInterrupted() {
    return interrupted.load();
}

} // namespace Ctl
