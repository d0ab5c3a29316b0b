// One round of the queue's figures: how many elements a second go through the product and through each of
// its peers, one after the other, and what a single element allocates.

#include "queue/Series.h"
#include "support/Report.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

#include <CLI/CLI.hpp>

namespace {

using namespace Bench;

struct Shape {
    std::string name;
    unsigned int producers;
    unsigned int consumers;
};

const std::vector<Shape>& Shapes() {
    static const std::vector<Shape> shapes{
        {"1 producer, 1 consumer", 1, 1}, {"2 producers, 2 consumers", 2, 2}, {"4 producers, 1 consumer", 4, 1}};
    return shapes;
}

struct Options {
    unsigned int round = 0;
    unsigned int durationMs = 80;
    std::string only;
    std::string series;
};

std::string PortionName(std::size_t portion) {
    return portion == 1 ? "single" : "bulk " + std::to_string(portion);
}

// The goals of the series that is the product with nothing declared.
std::vector<Goal> GoalsOf(const Load& load) {
    const bool single = load.portion == 1;
    const bool oneAndOne = load.producers == 1 && load.consumers == 1;
    const bool fourAndOne = load.producers == 4;
    const bool crowded = load.producers + load.consumers > std::thread::hardware_concurrency();
    std::vector<Goal> goals;
    const auto atLeast = [&](double limit, const std::string& of, bool everyRound = false) {
        goals.push_back({.bound = Goal::Bound::AtLeast, .limit = limit, .of = of, .everyRound = everyRound});
    };
    if (oneAndOne && load.portion == 128) {
        atLeast(0.9, "dpdk MP/MC");
        atLeast(0.9, "dpdk RTS");
        atLeast(1, "moodycamel, tokens");
    }
    if (single && (oneAndOne || fourAndOne)) {
        atLeast(0.8, "moodycamel, tokens");
    }
    if ((oneAndOne && load.portion == 128) || (single && (oneAndOne || fourAndOne))) {
        atLeast(1, "boost::lockfree");
        atLeast(1, "tbb bounded");
        atLeast(1, "mutex and deque", crowded);
    } else if (crowded) {
        atLeast(1, "mutex and deque", true);
    }
    return goals;
}

// Every series in turn; another one begins in each round.
void MeasureCase(const Options& options, const Shape& shape, Element element, const Load& load) {
    const std::string figure =
        std::string("queue: ") + (element == Element::Shared ? "shared_ptr" : "plain pointers") + ", " + shape.name;
    const std::string kase = PortionName(load.portion) + ", " + std::to_string(load.capacity);
    if ((figure + ", " + kase).find(options.only) == std::string::npos) {
        return;
    }
    std::vector<const Series*> series;
    for (const Series& one : AllSeries()) {
        if (one.element == element && one.name.find(options.series) != std::string::npos) {
            series.push_back(&one);
        }
    }
    if (series.empty()) {
        return;
    }
    const auto first = static_cast<std::ptrdiff_t>(options.round % series.size());
    std::rotate(series.begin(), series.begin() + first, series.end());
    for (const Series* one : series) {
        Report({.figure = figure,
                .kase = kase,
                .series = one->name,
                .value = one->millionsPerSecond(load),
                .unit = "M elements/s",
                .goals = one->name == "corvalent" ? GoalsOf(load) : std::vector<Goal>{}});
    }
}

void MeasureThroughput(const Options& options) {
    for (const Element element : {Element::Shared, Element::Plain}) {
        for (const Shape& shape : Shapes()) {
            for (const std::size_t portion : {1U, 32U, 128U}) {
                for (const std::uint32_t capacity : {1024U, 10240U}) {
                    MeasureCase(options, shape, element,
                                {.producers = shape.producers,
                                 .consumers = shape.consumers,
                                 .portion = portion,
                                 .capacity = capacity,
                                 .duration = std::chrono::milliseconds(options.durationMs)});
                }
            }
        }
    }
}

void MeasureAllocations() {
    for (const Series& series : AllSeries()) {
        if (series.allocationsPerPair) {
            Report({.figure = "queue: allocations of a single element in and out",
                    .kase = series.element == Element::Shared ? "shared_ptr" : "plain pointers",
                    .series = series.name,
                    .value = series.allocationsPerPair(),
                    .unit = "calls of operator new",
                    .goals = {{.bound = Goal::Bound::AtMost, .limit = 0, .of = ""}}});
        }
    }
}

int Main(int argc, char** argv) {
    Options options;
    CLI::App app("One round of the queue's figures, as lines of JSON.");
    app.add_option("--round", options.round, "the number of this round: another series begins in each");
    app.add_option("--only", options.only, "measure the cases whose name contains this");
    app.add_option("--series", options.series, "measure the queues whose name contains this");
    app.add_option("--duration-ms", options.durationMs, "how long each queue runs");
    CLI11_PARSE(app, argc, argv);
    MeasureThroughput(options);
    if (options.only.empty() && options.series.empty()) {
        MeasureAllocations();
    }
    return EXIT_SUCCESS;
}

} // namespace

std::vector<Bench::Series>& Bench::AllSeries() {
    static std::vector<Series> series;
    return series;
}

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& problem) {
        std::cerr << "queue: " << problem.what() << '\n';
        return EXIT_FAILURE;
    }
}
