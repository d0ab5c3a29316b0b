#pragma once

#include <cstddef>
#include <span>

#include <sys/fanotify.h>

namespace Engine {

// Walks over what a read(2) of a fanotify group gave: events one after the other, each a struct
// fanotify_event_metadata (include/uapi/linux/fanotify.h) and whatever its event_len says follows.
//
// Works on untrusted bytes, which need no alignment. Allocates and throws nothing, so that the descriptor of
// each event can be taken over before anything else happens.
class FanotifyEvents {
public:
    // The bytes outlive this.
    explicit FanotifyEvents(std::span<const std::byte> bytes) : mRest(bytes) {}

    // Sets `event` to the next one. False, `event` untouched, at the end and at bytes that are no whole event
    // of the version that this program knows: nothing behind them can be understood.
    bool Next(fanotify_event_metadata& event) noexcept;

    // Whether every byte belonged to an event.
    bool IsAtEnd() const { return mRest.empty(); }

private:
    std::span<const std::byte> mRest;
};

} // namespace Engine
