#pragma once

#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    // Wall-clock time in seconds since the epoch.
    static std::int64_t GetCurrentTimestampS();

    // The CPU time that this process has used so far, all threads together, in ticks of one
    // microsecond. The unit of all of InnerCpuCtrlUtils' ticks.
    static unsigned long GetCurrentSystemTickUsed();
};

} // namespace SDK
