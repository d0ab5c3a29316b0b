#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Bench {

// Each measures once, everything that it compares, and reports; the order alternates with the round.
void MeasureLoad(int round);
void MeasureStore(int round);
void MeasureMemory(int round);
void MeasureWaiting(int round);
void MeasureLookUp(int round);
void MeasureStart(int round);
void MeasureFileEvents(int round);

inline double Seconds(const std::function<void()>& work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Calls all of them, another one first in each round.
inline void Alternate(int round, const std::vector<std::function<void()>>& works) {
    for (std::size_t i = 0; i < works.size(); ++i) {
        works[(i + static_cast<std::size_t>(round)) % works.size()]();
    }
}

} // namespace Bench
