#include "framework/Counters.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

using Framework::Counter;
using Framework::Counters;

TEST(Counters, ANewCounterIsZero) {
    EXPECT_EQ(Counters::Of("counters_test.new").Get(), 0U);
}

TEST(Counters, OneNameIsOneCounter) {
    Counter& first = Counters::Of("counters_test.same");
    first.Add();
    first.Add(41);
    EXPECT_EQ(&Counters::Of("counters_test.same"), &first);
    EXPECT_EQ(Counters::Of("counters_test.same").Get(), 42U);
    EXPECT_EQ(Counters::Of("counters_test.other").Get(), 0U);
}

TEST(Counters, TheSnapshotHoldsAllOfThem) {
    Counters::Of("counters_test.snapshot_a").Add(3);
    Counters::Of("counters_test.snapshot_b");
    const auto values = Counters::Snapshot();
    EXPECT_EQ(values.at("counters_test.snapshot_a"), 3U);
    EXPECT_EQ(values.at("counters_test.snapshot_b"), 0U);
}

TEST(Counters, ManyThreadsMakeAndCountTheSameCounters) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 2000;
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < ROUNDS; ++round) {
                Counters::Of("counters_test.shared." + std::to_string(round % 50)).Add();
                if (round % 500 == 0) {
                    Counters::Snapshot();
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::uint64_t sum = 0;
    for (int i = 0; i < 50; ++i) {
        sum += Counters::Of("counters_test.shared." + std::to_string(i)).Get();
    }
    EXPECT_EQ(sum, static_cast<std::uint64_t>(THREADS * ROUNDS));
}
