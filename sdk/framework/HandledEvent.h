#pragma once

#include <cstdint>

namespace Framework {

// While it lives, the thread that made it is handling an event of the kernel's. Whoever acts on that
// event's account on the same thread can so tell how much later that is, and which process it was about,
// though the code in between knows nothing of it.
//
// A process id alone does not name a process: the one that bore it may end at any time, and another be
// given the number. So the process is held by a descriptor from the beginning of the handling (pidfd_open(2)):
// whatever is read by its id afterwards is its own as long as the descriptor says that it lives, and who acts
// through the descriptor never acts on another one.
//
// Lives and dies on one thread. They may be nested; the innermost counts.
class HandledEvent {
public:
    // When the event happened (CLOCK_MONOTONIC, nanoseconds); 0 when nobody knows. `pid` is the process that it
    // is about; 0 when nobody will act on one.
    explicit HandledEvent(std::uint64_t timestampNs, int pid = 0);
    ~HandledEvent();
    HandledEvent(const HandledEvent&) = delete;
    HandledEvent& operator=(const HandledEvent&) = delete;

    // When the event that this thread is handling happened; 0 when it is handling none, or none whose
    // time is known.
    static std::uint64_t GetTimestampNs();

    // True when the event that this thread is handling is about the process of that id. Then `pidfd` is lent
    // for as long as the event is handled, or -1 when the process could not be had; `error` is why (errno).
    static bool IsAbout(int pid, int& pidfd, int& error);

private:
    const HandledEvent* const mOuter; // the one that this thread was handling before
    const std::uint64_t mTimestampNs;
    const int mPid;
    int mPidfd = -1;
    int mError = 0;
};

} // namespace Framework
