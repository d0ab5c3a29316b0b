#pragma once

#include <cstdint>

namespace Framework {

// While it lives, the thread that made it is handling an event of the kernel's. Whoever acts on that
// event's account on the same thread can so tell how much later that is, though the code in between
// knows nothing of it.
//
// Lives and dies on one thread. They may be nested; the innermost counts.
class HandledEvent {
public:
    // When the event happened (CLOCK_MONOTONIC, nanoseconds); 0 when nobody knows.
    explicit HandledEvent(std::uint64_t timestampNs);
    ~HandledEvent();
    HandledEvent(const HandledEvent&) = delete;
    HandledEvent& operator=(const HandledEvent&) = delete;

    // When the event that this thread is handling happened; 0 when it is handling none, or none whose
    // time is known.
    static std::uint64_t GetTimestampNs();

private:
    const std::uint64_t mOuterNs; // the one that this thread was handling before
};

} // namespace Framework
