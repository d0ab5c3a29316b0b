#pragma once

#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    // Wall-clock time in seconds since the epoch.
    static std::int64_t GetCurrentTimestampS();

    // CLOCK_MONOTONIC in nanoseconds: the clock that the kernel stamps its process events with.
    static std::uint64_t GetMonotonicNs();

    // How long ago that was by the same clock; 0 for what lies ahead.
    static std::uint64_t GetNsSince(std::uint64_t monotonicNs);

    // The CPU time that this process has used so far, all threads together, in ticks of one
    // microsecond. The unit of all of InnerCpuCtrlUtils' ticks.
    static unsigned long GetCurrentSystemTickUsed();
};

} // namespace SDK
