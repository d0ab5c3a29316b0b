#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/sdk/CpuGovernor.h"
#include "sdk/CpuThrottle.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

using SDK::InnerCpuCtrlUtils;
using SDK::SetCpuBudgetPercent;
using SDK::TimeUtils;

namespace {

using Clock = std::chrono::steady_clock;

void UseCpu(unsigned long ticks) {
    const unsigned long begin = TimeUtils::GetCurrentSystemTickUsed();
    while (TimeUtils::GetCurrentSystemTickUsed() - begin < ticks) {
    }
}

std::chrono::milliseconds TimeOf(const auto& operation) {
    const Clock::time_point begin = Clock::now();
    operation();
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

void Adjust(unsigned long elapsed) {
    InnerCpuCtrlUtils::AdjustThreadCpu("test", __LINE__, "test", TimeUtils::GetCurrentSystemTickUsed(), elapsed);
}

// The process's CPU time over wall time while `threads` busy loops run for `duration`.
double ShareOfBusyLoops(int threads, std::chrono::milliseconds duration) {
    const Clock::time_point begin = Clock::now();
    const unsigned long tickBegin = TimeUtils::GetCurrentSystemTickUsed();
    std::vector<std::thread> loops;
    loops.reserve(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) {
        loops.emplace_back([&] {
            SDK::CpuThrottle throttle("test", "test");
            while (Clock::now() - begin < duration) {
                throttle.Check();
            }
        });
    }
    for (std::thread& loop : loops) {
        loop.join();
    }
    const auto wallUs = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin).count();
    return static_cast<double>(TimeUtils::GetCurrentSystemTickUsed() - tickBegin) / static_cast<double>(wallUs);
}

} // namespace

TEST(CpuGovernor, IsOffUntilABudgetIsSet) {
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    UseCpu(50000);
    EXPECT_LT(TimeOf([] { Adjust(50000000); }).count(), 500);
}

TEST(CpuGovernor, ABudgetSwitchesItOnZeroOff) {
    SetCpuBudgetPercent(10);
    EXPECT_TRUE(InnerCpuCtrlUtils::IsEnabled());
    SetCpuBudgetPercent(0);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
    SetCpuBudgetPercent(10);
    SetCpuBudgetPercent(-5);
    EXPECT_FALSE(InnerCpuCtrlUtils::IsEnabled());
}

TEST(CpuGovernor, SuggestsATickThatIsShortOnTheScaleOfItsSleeps) {
    EXPECT_GT(InnerCpuCtrlUtils::GetSuggestedRunTick(), 0UL);
    EXPECT_LE(InnerCpuCtrlUtils::GetSuggestedRunTick(), 100000UL);
}

TEST(CpuGovernor, KeepsABusyLoopNearItsBudget) {
    SetCpuBudgetPercent(20);
    const double share = ShareOfBusyLoops(1, std::chrono::milliseconds(1500));
    EXPECT_LT(share, 0.6);
    EXPECT_GT(share, 0.02);
}

TEST(CpuGovernor, TheBudgetIsThatOfTheProcessNotOfEachThread) {
    SetCpuBudgetPercent(20);
    EXPECT_LT(ShareOfBusyLoops(4, std::chrono::milliseconds(1500)), 0.6);
}

TEST(CpuGovernor, ACallSleepsAtMostOneSecond) {
    SetCpuBudgetPercent(1);
    UseCpu(100000);
    const long sleptMs = TimeOf([] { Adjust(100000); }).count();
    EXPECT_GE(sleptMs, 900);
    EXPECT_LT(sleptMs, 5000);
}

TEST(CpuGovernor, ACallSleepsNoLongerThanWhatItElapsedNeeds) {
    SetCpuBudgetPercent(1);
    UseCpu(100000);
    EXPECT_LT(TimeOf([] { Adjust(100); }).count(), 500);
    EXPECT_LT(TimeOf([] { Adjust(0); }).count(), 500);
}

TEST(CpuGovernor, IdleTimeIsNoCreditForALaterBurst) {
    SetCpuBudgetPercent(10);
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    Adjust(10000);
    // The burst and the sleep together, because on a loaded machine the burst alone may take that long.
    const auto took = TimeOf([] {
        UseCpu(50000);
        Adjust(50000);
    });
    EXPECT_GE(took.count(), 450);
}

TEST(CpuGovernor, WhatWasUsedBeforeTheBudgetDoesNotCount) {
    UseCpu(300000);
    SetCpuBudgetPercent(10);
    EXPECT_LT(TimeOf([] { Adjust(300000); }).count(), 500);
}
