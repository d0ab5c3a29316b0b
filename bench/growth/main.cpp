#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "growth/Figures.h"

namespace {

int Main(int argc, char** argv) {
    int round = 0;
    std::string only;
    CLI::App app("One round of the figures about start, memory and growth, as lines of JSON.");
    app.add_option("--round", round, "the number of this round: another series begins in each");
    app.add_option("--only", only, "measure this alone: memory, load, store, waiting, start, lookup, files");
    CLI11_PARSE(app, argc, argv);
    // Memory first, while the heap is small.
    const std::vector<std::pair<std::string, std::function<void(int)>>> figures = {
        {"memory", Bench::MeasureMemory},    {"load", Bench::MeasureLoad},   {"store", Bench::MeasureStore},
        {"waiting", Bench::MeasureWaiting},  {"start", Bench::MeasureStart}, {"lookup", Bench::MeasureLookUp},
        {"files", Bench::MeasureFileEvents},
    };
    for (const auto& [name, measure] : figures) {
        if (only.empty() || only == name) {
            measure(round);
        }
    }
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& problem) {
        std::cerr << "growth: " << problem.what() << '\n';
        return EXIT_FAILURE;
    }
}
