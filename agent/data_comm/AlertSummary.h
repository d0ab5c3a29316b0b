#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace Engine {

// An untrusted program that detection has seen and not blocked: all alerts of one path and digest.
struct SeenProgram {
    std::string path{};
    std::string hash{};
    std::int64_t count = 0;
    std::int64_t firstSeen = 0; // seconds since the epoch, as the alerts were stored
    std::int64_t lastSeen = 0;
    std::vector<std::string> users{}; // in byte order; a user id in decimal where an alert names nobody
};

struct AlertSummary {
    // No summary holds more; the programs seen least often are left out.
    static constexpr std::size_t MAX_PROGRAMS = 10000;

    std::vector<SeenProgram> programs{}; // the most frequent first
    bool complete = true;                // nothing was left out
};

// Sums up the alerts whose process was not blocked, those stored at `since` or later; appends to
// `summary`. Rows that are no such alert, whatever they hold, are passed over. SQLITE_OK or an error of
// SQLite.
int SummariseAlerts(sqlite3* database, std::optional<std::int64_t> since, AlertSummary& summary);

} // namespace Engine
