#include <chrono>
#include <cstddef>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/sdk/TurnTaking.h"

using namespace std::chrono_literals;

namespace {

using Turns = SDK::TurnTaking<int>;

void Fill(Turns& turns, int value) {
    int* const slot = turns.AwaitEmpty();
    ASSERT_NE(slot, nullptr);
    *slot = value;
    turns.Filled();
}

void FillAll(Turns& turns) {
    for (std::size_t i = 0; i < Turns::COUNT; ++i) {
        Fill(turns, 1);
    }
}

} // namespace

TEST(TurnTakingTest, WhatOneThreadFillsTheOtherGetsInTheSameOrder) {
    constexpr int LAST = 20000;
    Turns turns;
    std::jthread filling([&turns] {
        for (int i = 1; i <= LAST; ++i) {
            Fill(turns, i);
        }
    });
    for (int i = 1; i <= LAST; ++i) {
        const int* const slot = turns.AwaitFilled();
        ASSERT_NE(slot, nullptr);
        EXPECT_EQ(*slot, i);
        turns.Emptied();
    }
}

TEST(TurnTakingTest, ASlotStaysTheSameUntilItIsGivenOn) {
    Turns turns;
    int* const filled = turns.AwaitEmpty();
    EXPECT_EQ(turns.AwaitEmpty(), filled);
    turns.Filled();
    EXPECT_NE(turns.AwaitEmpty(), filled);
    EXPECT_EQ(turns.AwaitFilled(), filled);
    EXPECT_EQ(turns.AwaitFilled(), filled);
    turns.Emptied();
}

TEST(TurnTakingTest, AnEmptiedSlotCanBeFilledAgain) {
    Turns turns;
    FillAll(turns);
    std::future<bool> filling = std::async(std::launch::async, [&turns] { return turns.AwaitEmpty() != nullptr; });
    const int* const first = turns.AwaitFilled();
    turns.Emptied();
    EXPECT_TRUE(filling.get());
    EXPECT_EQ(turns.AwaitEmpty(), first);
}

TEST(TurnTakingTest, AllIsEmptyWhenTheOtherSideHasNothingLeft) {
    Turns turns;
    turns.AwaitAllEmpty();
    FillAll(turns);
    std::vector<int> emptied;
    std::jthread emptying([&] {
        for (std::size_t i = 0; i < Turns::COUNT; ++i) {
            emptied.push_back(*turns.AwaitFilled());
            turns.Emptied();
        }
    });
    turns.AwaitAllEmpty();
    EXPECT_EQ(emptied.size(), Turns::COUNT);
}

TEST(TurnTakingTest, AStopWakesWhoeverWaitsToFill) {
    Turns turns;
    FillAll(turns);
    std::future<bool> filling = std::async(std::launch::async, [&turns] { return turns.AwaitEmpty() == nullptr; });
    turns.Stop();
    EXPECT_TRUE(filling.get());
}

TEST(TurnTakingTest, TheFinishWakesWhoeverWaitsToEmpty) {
    Turns turns;
    std::future<bool> emptying = std::async(std::launch::async, [&turns] { return turns.AwaitFilled() == nullptr; });
    turns.Finish();
    EXPECT_TRUE(emptying.get());
}

TEST(TurnTakingTest, WhatIsBeingFilledAtTheStopIsStillAwaitedAndEmptied) {
    Turns turns;
    int* const slot = turns.AwaitEmpty();
    turns.Stop();
    std::future<int*> emptying = std::async(std::launch::async, [&turns] { return turns.AwaitFilled(); });
    // It must not end whatever time it is given.
    EXPECT_EQ(emptying.wait_for(20ms), std::future_status::timeout);
    turns.Filled();
    EXPECT_EQ(emptying.get(), slot);
    turns.Emptied();
    turns.AwaitAllEmpty();
}

TEST(TurnTakingTest, AfterTheEndWhatIsFilledIsEmptiedStill) {
    Turns turns;
    FillAll(turns);
    turns.Stop();
    EXPECT_EQ(turns.AwaitEmpty(), nullptr);
    turns.Finish();
    std::future<void> waiting = std::async(std::launch::async, [&turns] { turns.AwaitAllEmpty(); });
    for (std::size_t i = 0; i < Turns::COUNT; ++i) {
        ASSERT_NE(turns.AwaitFilled(), nullptr);
        turns.Emptied();
    }
    waiting.get();
    EXPECT_EQ(turns.AwaitFilled(), nullptr);
    EXPECT_EQ(turns.AwaitEmpty(), nullptr);
}
