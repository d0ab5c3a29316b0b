#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "support/Report.h"

namespace Bench {

// Each measures its figures once, product, floor and peers, and reports them. `round` says who begins.

// From the exec of an unknown program to its death.
void MeasureKill(unsigned int round);

// What programs that are trusted lose by the agent, and what they cost it; fapolicyd beside it.
void MeasureTrusted(unsigned int round);

// The verdict on a program of 10 MiB that has been judged before.
void MeasureSeenBefore(unsigned int round);

// The first digest of a file.
void MeasureDigest(unsigned int round);

// 20,000 programs at full rate.
void MeasureStorm(unsigned int round);

// 1,000 untrusted programs at once.
void MeasureBurst(unsigned int round);

inline constexpr const char* PRODUCT = "corvalent";
inline constexpr const char* BARE_LOOP = "bare loop";

inline Goal AtMost(double limit, const std::string& of = "") {
    return {.bound = Goal::Bound::AtMost, .limit = limit, .of = of};
}
inline Goal AtLeast(double limit, const std::string& of = "") {
    return {.bound = Goal::Bound::AtLeast, .limit = limit, .of = of};
}

// The value that the share of all values is at most; `values` is not empty.
inline double Percentile(std::vector<double> values, double share) {
    const auto at = static_cast<std::size_t>(static_cast<double>(values.size() - 1) * share + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
}

} // namespace Bench
