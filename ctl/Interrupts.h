#pragma once

#include <array>
#include <chrono>
#include <csignal>

#include "agent/sdk/FileDescriptor.h"

namespace Ctl {

// While it lives, SIGINT, SIGTERM and SIGHUP do not end the program but ask it to end; a hang-up that the
// program was started to ignore (nohup) stays ignored. One object at a time, made and destroyed on the
// first thread.
class Interrupts {
public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    enum class Wake { TIME, INPUT, SIGNAL, GONE };

    // Returns when the time is over, when `fd` (-1 for none) has something to read or is closed at its
    // other end (GONE), or on a signal, that of a changed window included. No request to end is missed
    // between a look at AreThere and this.
    Wake Wait(int fd, std::chrono::milliseconds time) const;

    // The program has been asked to end since the last object was made. Any thread.
    static bool AreThere();

private:
    static constexpr std::array<int, 3> SIGNALS = {SIGINT, SIGTERM, SIGHUP};

    const SDK::FileDescriptor mRequest; // readable from the first request on
    std::array<struct sigaction, SIGNALS.size()> mOldActions{};
};

} // namespace Ctl
