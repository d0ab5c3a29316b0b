#include "sdk/TimeUtils.h"

#include <ctime>

namespace SDK {

std::int64_t TimeUtils::GetCurrentTimestampS() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<unsigned long>(used.tv_sec) * 1000000UL + static_cast<unsigned long>(used.tv_nsec) / 1000UL;
}

} // namespace SDK
