#pragma once

#include <cstdint>
#include <vector>

#include "agent/process_collect/ProcEvent.h"

namespace Engine {

// Brings what two sockets told back into one order: execs from the one, forks and exits from the other.
//
// The kernel stamps an event and then puts it into the sockets, and a process does both before it goes on:
// before its child runs, before it does anything else, before it is gone. So of one process the time stamps
// rise, and an event is in its socket before the next one of that process is stamped.
//
// Who reads the execs first and then the others, and of the others tells only those that are not younger
// than either the beginning of the reading or the newest exec that was read, tells
//
//     no exec before its fork     the fork is older than the exec, and was in the other socket before that
//                                 was read
//     no exit before its exec     the exec was in its socket before the exit was stamped: before the reading
//                                 began, or before the newest exec that was read
//
// and keeps the rest for the next reading. When a socket has overflowed, this need not hold for what came
// about the same time.
//
// Not thread-safe.
class EventMerge {
public:
    // Appends to `events` what may be told, by time. `begunNs` is the time (CLOCK_MONOTONIC) just before
    // the reading began. Both inputs are empty afterwards.
    void Merge(std::uint64_t begunNs, std::vector<ProcEvent>& execs, std::vector<ProcEvent>& others,
               std::vector<ProcEvent>& events);

    // True while something is kept for the next time.
    bool KeepsSome() const { return !mKept.empty(); }

private:
    std::vector<ProcEvent> mKept; // forks and exits
};

} // namespace Engine
