#include "sdk/Histogram.h"

#include <numeric>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/FileUtils.h"
#include "support/TempRoot.h"

using SDK::Histogram;
using SDK::Histograms;

namespace {

constexpr std::size_t ABOVE_ALL = Histogram::BOUNDS_NS.size();

// In which interval a duration alone is counted.
std::size_t IntervalOf(std::uint64_t durationNs) {
    Histogram histogram;
    histogram.Record(durationNs);
    const Histogram::Snapshot snapshot = histogram.Read();
    EXPECT_EQ(snapshot.count, 1U);
    EXPECT_EQ(snapshot.sumNs, durationNs);
    std::size_t interval = 0;
    while (snapshot.counts.at(interval) == 0) {
        ++interval;
    }
    return interval;
}

} // namespace

TEST(Histogram, IsEmptyAtFirst) {
    const Histogram::Snapshot snapshot = Histogram().Read();
    EXPECT_EQ(snapshot.count, 0U);
    EXPECT_EQ(snapshot.sumNs, 0U);
}

TEST(Histogram, TheBoundsRise) {
    EXPECT_TRUE(std::is_sorted(Histogram::BOUNDS_NS.begin(), Histogram::BOUNDS_NS.end(), std::less_equal<>()));
}

TEST(Histogram, ABoundBelongsToTheIntervalThatItEnds) {
    for (std::size_t i = 0; i < Histogram::BOUNDS_NS.size(); ++i) {
        EXPECT_EQ(IntervalOf(Histogram::BOUNDS_NS[i]), i);
        EXPECT_EQ(IntervalOf(Histogram::BOUNDS_NS[i] - 1), i);
        EXPECT_EQ(IntervalOf(Histogram::BOUNDS_NS[i] + 1), i + 1);
    }
    EXPECT_EQ(IntervalOf(0), 0U);
    EXPECT_EQ(IntervalOf(1ULL << 62U), ABOVE_ALL);
}

TEST(Histogram, NothingIsLostBetweenManyThreads) {
    constexpr std::size_t THREADS = 4;
    constexpr std::uint64_t ROUNDS = 20000;
    Histogram histogram;
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < THREADS; ++thread) {
        threads.emplace_back([&histogram] {
            for (std::uint64_t round = 0; round < ROUNDS; ++round) {
                histogram.Record(round % 3 * 1'000'000);
                if (round % 1000 == 0) {
                    // What is seen in between never contradicts itself.
                    const Histogram::Snapshot seen = histogram.Read();
                    EXPECT_EQ(std::accumulate(seen.counts.begin(), seen.counts.end(), std::uint64_t{0}), seen.count);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Histogram::Snapshot snapshot = histogram.Read();
    EXPECT_EQ(snapshot.count, THREADS * ROUNDS);
    std::uint64_t sumNs = 0;
    for (std::uint64_t round = 0; round < ROUNDS; ++round) {
        sumNs += round % 3 * 1'000'000;
    }
    EXPECT_EQ(snapshot.sumNs, THREADS * sumNs);
}

TEST(Histograms, OneNameIsOneHistogram) {
    Histogram& first = Histograms::Of("histogram_test.same");
    first.Record(1);
    EXPECT_EQ(&Histograms::Of("histogram_test.same"), &first);
    EXPECT_EQ(Histograms::ReadAll().at("histogram_test.same").count, 1U);
    Histograms::Of("histogram_test.other");
    EXPECT_EQ(Histograms::ReadAll().at("histogram_test.other").count, 0U);
}

TEST(Histograms, EachDigestThatIsComputedIsTimed) {
    const TestSupport::TempDir dir;
    const std::string file = dir.Write("file", "content");
    const std::uint64_t before = Histograms::Of("digest").Read().count;
    std::string digest;

    EXPECT_EQ(SDK::FileUtils::GetFileSha256(file, digest, 100), 0);
    EXPECT_EQ(Histograms::Of("digest").Read().count, before + 1);

    EXPECT_NE(SDK::FileUtils::GetFileSha256(dir / "none", digest, 100), 0);
    EXPECT_EQ(Histograms::Of("digest").Read().count, before + 1);
}
