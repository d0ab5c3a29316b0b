// Decoding what a fanotify group's descriptor gave (Engine::FanotifyEvents). The descriptors that the events
// name are only looked at: they are anybody's.

#include <cstring>
#include <span>
#include <vector>

#include "agent/filenotify/FanotifyEvents.h"
#include "fuzz/Fuzz.h"

namespace {

using Event = fanotify_event_metadata;

struct Decoded {
    std::vector<Event> events;
    bool complete = false;
};

Decoded Decode(std::span<const std::byte> bytes) {
    // Just these bytes, so that a sanitizer sees what is read beyond them.
    const std::vector<std::byte> copy(bytes.begin(), bytes.end());
    Decoded decoded;
    Engine::FanotifyEvents events(copy);
    Event event{};
    while (events.Next(event)) {
        decoded.events.push_back(event);
    }
    decoded.complete = events.IsAtEnd();
    const Event last = event;
    Fuzz::Require(!events.Next(event) && std::memcmp(&last, &event, sizeof event) == 0,
                  "at the end nothing follows, and the event is untouched");
    return decoded;
}

// As the macros of <sys/fanotify.h> walk over events that are laid out as the kernel does it.
Decoded Expect(std::span<const std::byte> bytes) {
    Decoded expected;
    std::size_t offset = 0;
    for (;;) {
        const std::span<const std::byte> begin = bytes.subspan(offset, std::min(sizeof(Event), bytes.size() - offset));
        Event event{};
        std::copy(begin.begin(), begin.end(), reinterpret_cast<std::byte*>(&event));
        if (!FAN_EVENT_OK(&event, bytes.size() - offset) || event.vers != FANOTIFY_METADATA_VERSION) {
            break;
        }
        expected.events.push_back(event);
        offset += event.event_len;
    }
    expected.complete = offset == bytes.size();
    return expected;
}

bool IsSame(const std::vector<Event>& a, const std::vector<Event>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Event& x, const Event& y) { return std::memcmp(&x, &y, sizeof x) == 0; });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    const std::span<const std::byte> bytes(reinterpret_cast<const std::byte*>(data), size);
    const Decoded decoded = Decode(bytes);
    const Decoded expected = Expect(bytes);
    Fuzz::Require(IsSame(decoded.events, expected.events), "the events are those in the bytes, in their order");
    Fuzz::Require(decoded.complete == expected.complete, "bytes that are no event are noticed");
    Fuzz::Require(decoded.events.size() * sizeof(Event) <= size, "no event takes less room than an event has");
    return 0;
}
