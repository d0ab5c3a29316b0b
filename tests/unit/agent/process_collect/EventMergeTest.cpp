#include <utility>

#include <gtest/gtest.h>

#include "agent/process_collect/EventMerge.h"
#include "modules/ProcsMessage.h"

using Engine::EventMerge;
using Engine::ProcEvent;
using Engine::ProcsMessage;

namespace {

using Events = std::vector<ProcEvent>;
using Told = std::vector<std::pair<unsigned int, int>>; // kind, pid

ProcEvent Exec(int pid, std::uint64_t timestampNs) {
    return {ProcsMessage::KIND_EXEC, pid, 0, timestampNs};
}
ProcEvent Fork(int pid, std::uint64_t timestampNs) {
    return {ProcsMessage::KIND_FORK, pid, 1, timestampNs};
}
ProcEvent Exit(int pid, std::uint64_t timestampNs) {
    return {ProcsMessage::KIND_EXIT, pid, 0, timestampNs};
}

// What is told when reading begins at that time and finds that.
Told Merge(EventMerge& merge, std::uint64_t begunNs, Events execs, Events others) {
    Events events;
    merge.Merge(begunNs, execs, others, events);
    Told told;
    for (const ProcEvent& event : events) {
        told.emplace_back(event.kind, event.pid);
    }
    return told;
}

} // namespace

TEST(EventMergeTest, TheLivesOfTwoProcessesAreToldByTime) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {Exec(5, 20), Exec(6, 40)}, {Fork(5, 10), Fork(6, 30), Exit(5, 50), Exit(6, 60)}),
              (Told{{2, 5}, {1, 5}, {2, 6}, {1, 6}, {3, 5}, {3, 6}}));
    EXPECT_FALSE(merge.KeepsSome());
}

TEST(EventMergeTest, OfTheSameTimeAForkComesBeforeTheExec) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {Exec(5, 20)}, {Fork(5, 20)}), (Told{{2, 5}, {1, 5}}));
}

TEST(EventMergeTest, AnExecAfterTheBeginningOfTheReadingBringsItsFork) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {Exec(5, 120)}, {Fork(5, 110)}), (Told{{2, 5}, {1, 5}}));
}

// Its exec may have come between the reading of the two sockets.
TEST(EventMergeTest, AnExitAfterTheBeginningOfTheReadingWaitsForItsExec) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {}, {Fork(5, 90), Exit(5, 130)}), (Told{{2, 5}}));
    EXPECT_TRUE(merge.KeepsSome());
    EXPECT_EQ(Merge(merge, 200, {Exec(5, 120)}, {}), (Told{{1, 5}, {3, 5}}));
    EXPECT_FALSE(merge.KeepsSome());
}

TEST(EventMergeTest, AnExitThatIsOlderThanAnExecThatWasReadIsTold) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {Exec(6, 140)}, {Exit(5, 130), Exit(7, 150)}), (Told{{3, 5}, {1, 6}}));
    EXPECT_EQ(Merge(merge, 200, {}, {}), (Told{{3, 7}}));
}

TEST(EventMergeTest, WhatWasKeptComesBeforeWhatIsYounger) {
    EventMerge merge;
    EXPECT_EQ(Merge(merge, 100, {}, {Exit(5, 110)}), Told{});
    EXPECT_EQ(Merge(merge, 200, {Exec(6, 130)}, {Fork(6, 120)}), (Told{{3, 5}, {2, 6}, {1, 6}}));
}

TEST(EventMergeTest, WhatWasToldBeforeStaysInItsPlace) {
    EventMerge merge;
    Events events{Exec(9, 900)};
    Events execs{Exec(5, 20)};
    Events others{Fork(5, 10)};
    merge.Merge(100, execs, others, events);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].pid, 9);
    EXPECT_TRUE(execs.empty());
    EXPECT_TRUE(others.empty());
}
