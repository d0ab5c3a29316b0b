#pragma once

#include <algorithm>
#include <cstddef>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

// Writes what the library's own reporter writes, and at the end how many times its floor each benchmark took.
// The floor of "Record/threads:2" is "Floor/threads:2".
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : benchmark::ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        benchmark::ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                mTimes[run.benchmark_name()].push_back(run.GetAdjustedRealTime());
            }
        }
    }

    void Finalize() override {
        for (const auto& [name, times] : mTimes) {
            const auto floor = mTimes.find("Floor" + name.substr(std::min(name.find('/'), name.size())));
            if (floor == mTimes.end() || floor->first == name) {
                continue;
            }
            // Of repetitions, each beside its own floor.
            for (std::size_t i = 0; i < std::min(times.size(), floor->second.size()); ++i) {
                std::cout << name << ": " << times[i] / floor->second[i] << " times its floor\n";
            }
        }
    }

private:
    std::map<std::string, std::vector<double>> mTimes;
};

// The main program of a benchmark.
inline int RunWithRatios(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
