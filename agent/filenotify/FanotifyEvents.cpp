#include "agent/filenotify/FanotifyEvents.h"

#include <cstring>

namespace Engine {

bool FanotifyEvents::Next(fanotify_event_metadata& event) noexcept {
    if (mRest.size() < sizeof event) {
        return false;
    }
    fanotify_event_metadata next; // NOLINT(*-member-init): filled at once
    std::memcpy(&next, mRest.data(), sizeof next);
    if (next.vers != FANOTIFY_METADATA_VERSION || next.event_len < sizeof next || next.event_len > mRest.size()) {
        return false;
    }
    mRest = mRest.subspan(next.event_len);
    event = next;
    return true;
}

} // namespace Engine
