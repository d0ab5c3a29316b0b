#include "ctl/SinceTime.h"

#include <charconv>
#include <ctime>
#include <limits>
#include <map>

namespace Ctl {

namespace {

bool ParseNumber(const std::string& text, std::int64_t& number) {
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && number >= 0;
}

bool ParseAgo(const std::string& text, std::int64_t now, std::int64_t& seconds) {
    static const std::map<char, std::int64_t> UNITS = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    const auto unit = UNITS.find(text.back());
    std::int64_t count = 0;
    if (unit == UNITS.end() || !ParseNumber(text.substr(0, text.size() - 1), count) ||
        count > std::numeric_limits<std::int64_t>::max() / unit->second) {
        return false;
    }
    const std::int64_t ago = count * unit->second;
    seconds = ago < now ? now - ago : 0;
    return true;
}

bool ParseLocalTime(const std::string& text, std::int64_t& seconds) {
    for (const char* format : {"%Y-%m-%d", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"}) {
        std::tm parts{};
        const char* end = strptime(text.c_str(), format, &parts);
        if (end == nullptr || *end != '\0') {
            continue;
        }
        const int day = parts.tm_mday;
        parts.tm_isdst = -1; // whether it is summer time follows from the date
        const std::time_t time = std::mktime(&parts);
        // A day that its month does not have would count into the next one.
        if (time < 0 || parts.tm_mday != day) {
            return false;
        }
        seconds = time;
        return true;
    }
    return false;
}

} // namespace

bool ParseSince(const std::string& text, std::int64_t now, std::int64_t& seconds) {
    if (text.empty()) {
        return false;
    }
    std::int64_t number = 0;
    if (ParseNumber(text, number)) {
        seconds = number;
        return true;
    }
    return ParseAgo(text, now, seconds) || ParseLocalTime(text, seconds);
}

} // namespace Ctl
