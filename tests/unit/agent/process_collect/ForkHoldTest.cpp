#include <gtest/gtest.h>

#include "agent/process_collect/ForkHold.h"
#include "modules/ProcsMessage.h"

using Engine::ForkHold;
using Engine::ProcEvent;
using std::chrono::milliseconds;

namespace {

const ForkHold::Clock::time_point START{std::chrono::seconds(1000)};

ProcEvent Fork(int child, int parent = 1) {
    return {Engine::ProcsMessage::KIND_FORK, child, parent, 0};
}

} // namespace

TEST(ForkHoldTest, AForkIsDueWhenItsTimeIsOverAndNotBefore) {
    ForkHold hold;
    hold.Hold(Fork(5, 4), START);
    EXPECT_TRUE(hold.TakeDue(START + ForkHold::HOLD_TIME - milliseconds(1)).empty());
    const std::vector<ProcEvent> due = hold.TakeDue(START + ForkHold::HOLD_TIME);
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].pid, 5);
    EXPECT_EQ(due[0].parentPid, 4);
    EXPECT_EQ(hold.GetSize(), 0u);
}

TEST(ForkHoldTest, ATakenForkIsNotDueAnyMore) {
    ForkHold hold;
    hold.Hold(Fork(5, 4), START);
    const std::optional<ProcEvent> taken = hold.Take(5);
    ASSERT_TRUE(taken.has_value());
    EXPECT_EQ(taken->parentPid, 4);
    EXPECT_FALSE(hold.Take(5).has_value());
    EXPECT_TRUE(hold.TakeDue(START + milliseconds(100)).empty());
}

TEST(ForkHoldTest, DueForksComeOldestFirst) {
    ForkHold hold;
    for (int child = 9; child >= 5; --child) {
        hold.Hold(Fork(child), START + milliseconds(9 - child));
    }
    hold.Take(7);
    std::vector<int> order;
    for (const ProcEvent& fork : hold.TakeDue(START + milliseconds(100))) {
        order.push_back(fork.pid);
    }
    EXPECT_EQ(order, (std::vector<int>{9, 8, 6, 5}));
}

TEST(ForkHoldTest, OnlyThoseWhoseTimeIsOverAreDue) {
    ForkHold hold;
    hold.Hold(Fork(5), START);
    hold.Hold(Fork(6), START + milliseconds(3));
    EXPECT_EQ(hold.TakeDue(START + ForkHold::HOLD_TIME).size(), 1u);
    EXPECT_EQ(hold.GetSize(), 1u);
}

TEST(ForkHoldTest, ALaterForkOfThePidTakesTheEarliersPlaceAndItsOwnTime) {
    ForkHold hold;
    hold.Hold(Fork(5, 1), START);
    hold.Hold(Fork(5, 2), START + milliseconds(4));
    EXPECT_EQ(hold.GetSize(), 1u);
    EXPECT_TRUE(hold.TakeDue(START + ForkHold::HOLD_TIME).empty());
    const std::vector<ProcEvent> due = hold.TakeDue(START + milliseconds(4) + ForkHold::HOLD_TIME);
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].parentPid, 2);
}

TEST(ForkHoldTest, TheTimeoutLeadsToTheOldestForkAndIsNeverShort) {
    ForkHold hold;
    EXPECT_EQ(hold.GetTimeoutMs(START), -1);
    hold.Hold(Fork(5), START);
    hold.Hold(Fork(6), START + milliseconds(5));
    EXPECT_EQ(hold.GetTimeoutMs(START + std::chrono::microseconds(1500)), 9);
    EXPECT_EQ(hold.GetTimeoutMs(START + milliseconds(500)), 0);
}

TEST(ForkHoldTest, AllCanBeTakenBeforeTheirTime) {
    ForkHold hold;
    hold.Hold(Fork(5), START);
    hold.Hold(Fork(6), START + milliseconds(5));
    const std::vector<ProcEvent> all = hold.TakeAll();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].pid, 5);
    EXPECT_EQ(all[1].pid, 6);
    EXPECT_EQ(hold.GetSize(), 0u);
}
