#pragma once

#include "queue/Load.h"

#include <functional>
#include <string>
#include <vector>

namespace Bench {

enum class Element { Shared, Plain };

// One queue among those compared.
struct Series {
    std::string name;
    Element element = Element::Shared;
    std::function<double(const Load&)> millionsPerSecond;
    // Calls to operator new in each of many pairs of one element in and one out; of queues that promise
    // none.
    std::function<double()> allocationsPerPair;
};

// All queues of this program, in the order in which they were linked.
std::vector<Series>& AllSeries();

// A queue's source registers its series with objects of this type: the peers that are installed are
// those that are linked, and no other place lists them.
class Registration {
public:
    explicit Registration(Series series) { AllSeries().push_back(std::move(series)); }
};

template <typename Queue> Series MakeSeries(const std::string& name, Element element) {
    return {.name = name,
            .element = element,
            .millionsPerSecond = [](const Load& load) { return Run<Queue>(load).MillionsPerSecond(); },
            .allocationsPerPair = nullptr};
}

} // namespace Bench
