#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "agent/filenotify/FanotifyEvents.h"

namespace {

using Engine::FanotifyEvents;
using Bytes = std::vector<std::byte>;

fanotify_event_metadata Open(int pid, std::uint32_t length = sizeof(fanotify_event_metadata)) {
    fanotify_event_metadata event{};
    event.event_len = length;
    event.vers = FANOTIFY_METADATA_VERSION;
    event.metadata_len = FAN_EVENT_METADATA_LEN;
    event.mask = FAN_OPEN;
    event.fd = FAN_NOFD;
    event.pid = pid;
    return event;
}

// Each event with as many bytes behind it as its length says.
Bytes Lay(const std::vector<fanotify_event_metadata>& events) {
    Bytes bytes;
    for (const fanotify_event_metadata& event : events) {
        const std::size_t begin = bytes.size();
        bytes.resize(begin + std::max<std::size_t>(event.event_len, sizeof event));
        std::memcpy(bytes.data() + begin, &event, sizeof event);
    }
    return bytes;
}

struct Walk {
    std::vector<int> pids;
    bool complete = false;
};

Walk WalkOver(const Bytes& bytes) {
    Walk walk;
    FanotifyEvents events(bytes);
    fanotify_event_metadata event{};
    while (events.Next(event)) {
        walk.pids.push_back(event.pid);
    }
    walk.complete = events.IsAtEnd();
    return walk;
}

TEST(FanotifyEvents, NothingWasReadIsNothingToTell) {
    const Walk walk = WalkOver({});
    EXPECT_TRUE(walk.pids.empty());
    EXPECT_TRUE(walk.complete);
}

TEST(FanotifyEvents, EventsComeInTheirOrder) {
    const Walk walk = WalkOver(Lay({Open(11), Open(12), Open(13)}));
    EXPECT_EQ(walk.pids, (std::vector<int>{11, 12, 13}));
    EXPECT_TRUE(walk.complete);
}

TEST(FanotifyEvents, WhatFollowsAnEventIsPassedOverWhateverItsLength) {
    const Walk walk = WalkOver(Lay({Open(11, 41), Open(12)}));
    EXPECT_EQ(walk.pids, (std::vector<int>{11, 12}));
    EXPECT_TRUE(walk.complete);
}

TEST(FanotifyEvents, AnEventThatIsCutShortIsNone) {
    Bytes bytes = Lay({Open(11), Open(12)});
    bytes.pop_back();
    const Walk walk = WalkOver(bytes);
    EXPECT_EQ(walk.pids, std::vector<int>{11});
    EXPECT_FALSE(walk.complete);
}

TEST(FanotifyEvents, AnEventShorterThanItselfIsNone) {
    const Walk walk = WalkOver(Lay({Open(11), Open(12, 23)}));
    EXPECT_EQ(walk.pids, std::vector<int>{11});
    EXPECT_FALSE(walk.complete);
}

TEST(FanotifyEvents, NothingBehindAnEventOfAnotherVersionIsBelieved) {
    fanotify_event_metadata strange = Open(12);
    ++strange.vers;
    const Walk walk = WalkOver(Lay({Open(11), strange, Open(13)}));
    EXPECT_EQ(walk.pids, std::vector<int>{11});
    EXPECT_FALSE(walk.complete);
}

TEST(FanotifyEvents, WithoutANextEventTheLastOneIsKept) {
    const Bytes bytes = Lay({Open(11)});
    FanotifyEvents events(bytes);
    fanotify_event_metadata event{};
    ASSERT_TRUE(events.Next(event));
    ASSERT_FALSE(events.Next(event));
    EXPECT_EQ(event.pid, 11);
}

} // namespace
