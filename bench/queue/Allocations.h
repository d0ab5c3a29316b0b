#pragma once

#include <cstdint>

#include "support/AllocationCounter.h"

namespace Bench {

// The steady state of a call that has been made before.
template <typename Call> double CountAllocationsPerCall(const Call& call) {
    constexpr int CALLS = 100000;
    call();
    const std::uint64_t before = TestSupport::AllocationsSoFar();
    for (int i = 0; i < CALLS; ++i) {
        call();
    }
    return static_cast<double>(TestSupport::AllocationsSoFar() - before) / CALLS;
}

} // namespace Bench
