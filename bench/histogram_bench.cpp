// What it costs to record a duration, beside the floor: one relaxed addition to an atomic number.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include <benchmark/benchmark.h>

#include "RatioReporter.h"
#include "sdk/Histogram.h"
#include "sdk/TimeUtils.h"

namespace {

// Of all magnitudes, in an order that no branch predictor learns.
constexpr std::size_t DURATIONS = 4096;

std::array<std::uint64_t, DURATIONS> MakeDurations() {
    std::array<std::uint64_t, DURATIONS> durations{};
    std::uint64_t state = 88172645463325252ULL;
    for (std::uint64_t& duration : durations) {
        // Marsaglia's xorshift.
        state ^= state << 13U;
        state ^= state >> 7U;
        state ^= state << 17U;
        duration = state >> (30U + (state & 31U));
    }
    return durations;
}

const std::array<std::uint64_t, DURATIONS> durationsNs = MakeDurations();

std::atomic<std::uint64_t> number{0};
SDK::Histogram histogram;

void Floor(benchmark::State& state) {
    std::size_t i = 0;
    for (auto step : state) {
        number.fetch_add(durationsNs[i++ % DURATIONS], std::memory_order_relaxed);
    }
}

void Record(benchmark::State& state) {
    std::size_t i = 0;
    for (auto step : state) {
        histogram.Record(durationsNs[i++ % DURATIONS]);
    }
}

// As it is used: the clock is read first.
void RecordSince(benchmark::State& state) {
    const std::uint64_t sinceNs = SDK::TimeUtils::GetMonotonicNs();
    for (auto step : state) {
        histogram.Record(SDK::TimeUtils::GetNsSince(sinceNs));
    }
}

BENCHMARK(Floor)->Threads(1)->Threads(2);
BENCHMARK(Record)->Threads(1)->Threads(2);
BENCHMARK(RecordSince)->Threads(1)->Threads(2);

} // namespace

int main(int argc, char** argv) {
    return RunWithRatios(argc, argv);
}
