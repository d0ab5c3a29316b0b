#pragma once

#include <cstdint>
#include <ctime>

namespace SDK {

// A time of stat(2), or of a clock, in nanoseconds since that one's beginning.
inline std::int64_t ToNs(const timespec& time) {
    constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
    return static_cast<std::int64_t>(time.tv_sec) * NS_PER_SECOND + time.tv_nsec;
}

} // namespace SDK
