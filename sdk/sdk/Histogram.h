#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace SDK {

// How long something took, of all times that it was done: how often it took at most so long, for a
// fixed row of bounds, and the sum of all times. Kept for the life of the process.
//
// Any thread, lock-free. All atomic operations are relaxed: each number is a tally of its own, nobody
// concludes from one of them that anything else has happened in memory, and what a reader sees of each
// only grows. The price is that a Snapshot beside a running Record may have the count without the sum;
// the next one has both. It never contradicts itself in its counts, because the total is made by
// adding up the very numbers that it has read.
class Histogram {
public:
    // Upper bounds, inclusive, in nanoseconds: 1, 2.5 and 5 of every decade from a microsecond to ten
    // seconds. What takes longer is counted above the last.
    static constexpr std::array<std::uint64_t, 22> BOUNDS_NS = {
        1'000,       2'500,       5'000,         10'000,        25'000,        50'000,         100'000,    250'000,
        500'000,     1'000'000,   2'500'000,     5'000'000,     10'000'000,    25'000'000,     50'000'000, 100'000'000,
        250'000'000, 500'000'000, 1'000'000'000, 2'500'000'000, 5'000'000'000, 10'000'000'000,
    };

    struct Snapshot {
        // Times in each interval, not summed up: [i] is above bound i-1 and at most bound i, the last
        // above all bounds.
        std::array<std::uint64_t, BOUNDS_NS.size() + 1> counts{};
        std::uint64_t count = 0; // of all intervals together
        std::uint64_t sumNs = 0; // wraps around after 584 years
    };

    // Two relaxed additions and a search among the bounds: tens of nanoseconds at most.
    void Record(std::uint64_t durationNs) {
        const auto bound = std::lower_bound(BOUNDS_NS.begin(), BOUNDS_NS.end(), durationNs);
        mCounts[static_cast<std::size_t>(bound - BOUNDS_NS.begin())].fetch_add(1, std::memory_order_relaxed);
        mSumNs.fetch_add(durationNs, std::memory_order_relaxed);
    }

    Snapshot Read() const {
        Snapshot snapshot;
        for (std::size_t i = 0; i < mCounts.size(); ++i) {
            snapshot.counts[i] = mCounts[i].load(std::memory_order_relaxed);
            snapshot.count += snapshot.counts[i];
        }
        snapshot.sumNs = mSumNs.load(std::memory_order_relaxed);
        return snapshot;
    }

private:
    std::array<std::atomic<std::uint64_t>, BOUNDS_NS.size() + 1> mCounts{};
    std::atomic<std::uint64_t> mSumNs{0};
};

// Every histogram of the agent by its name ("digest"), beside Framework::Counters. Thread-safe.
class Histograms {
public:
    // The histogram of that name, made at first use. The reference holds for the life of the process:
    // look it up once and keep it.
    static Histogram& Of(const std::string& name);

    // All histograms and their numbers now.
    static std::map<std::string, Histogram::Snapshot> ReadAll();
};

} // namespace SDK
