#pragma once

#include <cstdint>
#include <string>

namespace Ctl {

// Reads a point in time: seconds since the epoch ("1767225600"), how long ago ("30s", "10m", "2h",
// "1d"), or local time ("2026-01-31", "2026-01-31 23:59:59", also with a "T"). `now` is what "ago"
// counts from. False, `seconds` untouched, for anything else.
bool ParseSince(const std::string& text, std::int64_t now, std::int64_t& seconds);

} // namespace Ctl
