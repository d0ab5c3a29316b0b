#pragma once

#include <cstdint>

namespace Bench {

// How often the calling thread has called operator new, which this program replaces to count.
std::uint64_t AllocationsSoFar();

// The steady state of a call that has been made before.
template <typename Call> double CountAllocationsPerCall(const Call& call) {
    constexpr int CALLS = 100000;
    call();
    const std::uint64_t before = AllocationsSoFar();
    for (int i = 0; i < CALLS; ++i) {
        call();
    }
    return static_cast<double>(AllocationsSoFar() - before) / CALLS;
}

} // namespace Bench
