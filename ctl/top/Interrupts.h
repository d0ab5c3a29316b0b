#pragma once

#include <array>
#include <chrono>
#include <csignal>

namespace Ctl::Top {

// While it lives, SIGINT, SIGTERM and SIGHUP do not end the program but ask it to end, and are only
// taken in Wait, so that none is missed between a look and a wait. One object at a time, on one thread.
class Interrupts {
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    enum class Wake { TIME, INPUT, SIGNAL, GONE };

    // Returns when the time is over, when `fd` (-1 for none) has something to read or is closed at its
    // other end (GONE), or on any signal, that of a changed window included.
    Wake Wait(int fd, std::chrono::milliseconds time) const;

    // The program has been asked to end.
    static bool WantsEnd();

private:
    static constexpr std::array<int, 3> SIGNALS = {SIGINT, SIGTERM, SIGHUP};

    sigset_t mWaitMask{};
    sigset_t mOldMask{};
    std::array<struct sigaction, SIGNALS.size()> mOldActions{};
};

} // namespace Ctl::Top
