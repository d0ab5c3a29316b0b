#include <chrono>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

#include "sdk/TimeUtils.h"

using SDK::TimeUtils;

TEST(Timestamp, IsWallClockTimeInSeconds) {
    const std::time_t before = std::time(nullptr);
    const std::int64_t timestamp = TimeUtils::GetCurrentTimestampS();
    EXPECT_GE(timestamp, before);
    EXPECT_LE(timestamp, std::time(nullptr));
}

TEST(CpuTicks, CountMicrosecondsOfAllThreads) {
    const unsigned long before = TimeUtils::GetCurrentSystemTickUsed();
    std::thread worker([] {
        const std::clock_t begin = std::clock();
        while (std::clock() - begin < CLOCKS_PER_SEC / 10) {
        }
    });
    worker.join();
    const unsigned long used = TimeUtils::GetCurrentSystemTickUsed() - before;
    EXPECT_GE(used, 90000UL);
    EXPECT_LT(used, 10000000UL);
}

TEST(CpuTicks, StandStillWhileTheProcessSleeps) {
    const unsigned long before = TimeUtils::GetCurrentSystemTickUsed();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(TimeUtils::GetCurrentSystemTickUsed() - before, 150000UL);
}
