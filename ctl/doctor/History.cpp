#include "ctl/doctor/History.h"

#include <filesystem>
#include <memory>

#include <sqlite3.h>

#include "ctl/Client.h"

namespace Ctl::Doctor {

namespace {

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3*)>;
using Instant = std::chrono::steady_clock::time_point;

int IsLate(void* deadline) {
    return std::chrono::steady_clock::now() >= *static_cast<Instant*>(deadline) ? 1 : 0;
}

int TakeText(void* text, int, char** columns, char**) {
    *static_cast<std::string*>(text) = columns[0] == nullptr ? "" : columns[0];
    return 0;
}

// The first column of the only row; SQLite's result code.
int Ask(const Database& database, const char* question, std::string& answer) {
    return sqlite3_exec(database.get(), question, TakeText, &answer, nullptr);
}

// A connection makes files beside the database for who may be writing it. While the daemon, or a crash,
// has left none, nobody writes, and the file alone is read.
std::string UriOf(const std::string& path) {
    std::error_code error;
    const bool written = std::filesystem::exists(path + "-wal", error);
    return "file:" + EncodeQuery(path) + (written ? "" : "?immutable=1");
}

Finding Damaged(const std::string& reason) {
    return Failed("damaged: " + reason,
                  "restart the daemon, which sets it aside and begins a new one; rescue the reports with "
                  "sqlite3 .recover");
}

} // namespace

Finding CheckHistory(const std::string& path, std::chrono::milliseconds deadline) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return error ? Warning("cannot be examined: " + error.message(),
                               "call corvalentctl doctor as root; else see the disk")
                     : Ok("none yet");
    }
    sqlite3* opened = nullptr;
    const int result = sqlite3_open_v2(UriOf(path).c_str(), &opened, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    const Database database(opened, sqlite3_close);
    if (result != SQLITE_OK) {
        return Failed(std::string("cannot be opened: ") + sqlite3_errstr(result), "see who may read it, and the disk");
    }
    constexpr int BUSY_MS = 2000;
    constexpr int STEPS_BETWEEN_LOOKS = 1000;
    Instant end = std::chrono::steady_clock::now() + deadline;
    sqlite3_busy_timeout(database.get(), BUSY_MS);
    sqlite3_progress_handler(database.get(), STEPS_BETWEEN_LOOKS, IsLate, &end);
    std::string answer;
    std::string count;
    int outcome = Ask(database, "PRAGMA quick_check(1)", answer);
    if (outcome == SQLITE_OK && answer == "ok") {
        outcome = Ask(database, "SELECT COUNT(*) FROM reports", count);
    }
    if (outcome == SQLITE_INTERRUPT) {
        return Warning("too large to be read through in " + std::to_string(deadline.count() / 1000) + " s",
                       "check it when there is time: sqlite3 data/reports.db 'PRAGMA quick_check'");
    }
    if (outcome != SQLITE_OK) {
        return Damaged(sqlite3_errmsg(database.get()));
    }
    return answer == "ok" ? Ok("whole, " + count + " reports") : Damaged(answer);
}

} // namespace Ctl::Doctor
