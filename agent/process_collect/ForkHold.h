#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <unordered_map>
#include <vector>

#include "agent/process_collect/ProcEvent.h"

namespace Engine {

// Keeps forks back for a moment, so that a fork that is followed by the child's exec can be folded
// into it: one program start, one event.
//
//   Hold(fork)          held, until one of
//   Take(child)         the child did something: the caller has the fork and decides
//   TakeDue(now)        HOLD_TIME has passed: the caller has it, oldest first
//
// At most one fork is held of a pid. A fork that comes while another of its pid is held takes that
// one's place: that process is gone.
//
// Not thread-safe.
class ForkHold {
public:
    using Clock = std::chrono::steady_clock;

    // Most programs that start another exec within a millisecond or two of the fork.
    static constexpr std::chrono::milliseconds HOLD_TIME{10};

    void Hold(const ProcEvent& fork, Clock::time_point now);

    // The held fork of that child, which is held no longer; nothing when there is none.
    std::optional<ProcEvent> Take(int child);

    bool Holds(int child) const { return mByChild.count(child) != 0; }

    // All forks whose time is over, oldest first. They are held no longer.
    std::vector<ProcEvent> TakeDue(Clock::time_point now);

    // All of them, oldest first.
    std::vector<ProcEvent> TakeAll() { return TakeDue(Clock::time_point::max()); }

    // How long until TakeDue has something, rounded up to milliseconds; -1 when nothing is held.
    int GetTimeoutMs(Clock::time_point now) const;

    std::size_t GetSize() const { return mForks.size(); }

private:
    struct Held {
        ProcEvent fork;
        Clock::time_point due;
    };

    // In the order of `due`; mByChild has the place of every element, by its pid.
    std::list<Held> mForks;
    std::unordered_map<int, std::list<Held>::iterator> mByChild;
};

} // namespace Engine
