#include "sdk/TimeUtils.h"

#include <ctime>

namespace SDK {

std::int64_t TimeUtils::GetCurrentTimestampS() {
    return static_cast<std::int64_t>(std::time(nullptr));
}

std::uint64_t TimeUtils::GetMonotonicNs() {
    constexpr std::uint64_t NS_PER_SECOND = 1'000'000'000;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * NS_PER_SECOND + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t TimeUtils::GetNsSince(std::uint64_t monotonicNs) {
    const std::uint64_t nowNs = GetMonotonicNs();
    return nowNs > monotonicNs ? nowNs - monotonicNs : 0;
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<unsigned long>(used.tv_sec) * 1000000UL + static_cast<unsigned long>(used.tv_nsec) / 1000UL;
}

} // namespace SDK
