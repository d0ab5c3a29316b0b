// What it costs to record a duration, beside the floor: one relaxed addition to an atomic number.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "sdk/Histogram.h"
#include "sdk/TimeUtils.h"
#include "support/Report.h"

namespace {

constexpr std::size_t DURATIONS = 4096;
constexpr std::size_t REPETITIONS = 5'000'000;

// Of all magnitudes, in an order that no branch predictor learns.
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

template <typename Step> double MeasureNs(Step step) {
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < REPETITIONS; ++i) {
        step(durationsNs[i % DURATIONS]);
    }
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - begin;
    return time.count() / static_cast<double>(REPETITIONS);
}

double MeasureFloor() {
    return MeasureNs([](std::uint64_t durationNs) { number.fetch_add(durationNs, std::memory_order_relaxed); });
}

double MeasureRecord() {
    return MeasureNs([](std::uint64_t durationNs) { histogram.Record(durationNs); });
}

// As it is used: the clock is read first.
double MeasureRecordSince() {
    const std::uint64_t beginNs = SDK::TimeUtils::GetMonotonicNs();
    return MeasureNs([beginNs](std::uint64_t) { histogram.Record(SDK::TimeUtils::GetNsSince(beginNs)); });
}

} // namespace

int main(int argc, char** argv) {
    std::size_t round = 0;
    CLI::App app("One round of what recording a duration costs, as lines of JSON.");
    app.add_option("--round", round, "the number of this round: another series begins in each");
    CLI11_PARSE(app, argc, argv);
    std::vector<std::pair<std::string, std::function<double()>>> series = {
        {"one addition", MeasureFloor}, {"record", MeasureRecord}, {"clock and record", MeasureRecordSince}};
    std::rotate(series.begin(), series.begin() + static_cast<std::ptrdiff_t>(round % series.size()), series.end());
    for (const auto& [name, measure] : series) {
        Bench::Report({.figure = "histogram: recording a duration",
                       .kase = "",
                       .series = name,
                       .value = measure(),
                       .unit = "ns",
                       .goals = {}});
    }
    return EXIT_SUCCESS;
}
