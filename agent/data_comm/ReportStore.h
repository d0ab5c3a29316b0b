#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "agent/data_comm/AlertSummary.h"
#include "modules/ReportTypes.h"

struct sqlite3;

namespace Engine {

// One report as it is kept: who sent it and when is part of the document, `time` is when it was taken
// over (seconds since the epoch). `id` counts up in the order of storing and is never used twice.
struct Report {
    std::int64_t id = 0;
    std::int64_t time = 0;
    std::string type;
    std::string data;
};

// Which reports are wanted. An absent member does not restrict.
struct ReportQuery {
    // No answer holds more, whatever was asked for.
    static constexpr int MAX_LIMIT = 1000;

    std::optional<std::string> type{};
    std::optional<std::int64_t> since{}; // stored at this second or later
    std::optional<std::int64_t> after{}; // with a greater id
    int limit = MAX_LIMIT;
    bool newestFirst = false;
};

struct ReportCounts {
    std::int64_t total = 0;
    std::int64_t alerts = 0;

    // What was counted: the history in this file, from this id to that. All 0 before.
    std::uint64_t inode = 0;
    std::int64_t firstId = 0;
    std::int64_t lastId = 0;
};

// The durable history of reports: an SQLite database in WAL mode, so that readers never hold up the
// one writer.
//
// The writer commits with synchronous=FULL. In WAL mode the weaker NORMAL leaves the last commits in
// the page cache: they outlive the process, but not a power failure. A report that was counted as
// stored has to outlive both, and one fsync for a batch of up to a thousand reports is cheap.
//
// A store is used by one thread at a time.
class ReportStore {
public:
    // The type of the reports that are alerts.
    static constexpr const char* ALERT_TYPE = REPORT_ALERT;

    // Nothing is touched before Open.
    explicit ReportStore(std::string path) : mPath(std::move(path)) {}
    ~ReportStore() { Close(); }
    ReportStore(const ReportStore&) = delete;
    ReportStore& operator=(const ReportStore&) = delete;

    // Opens the database for writing and makes it if there is none. One that is damaged, or is no
    // database, is moved aside to PATH.corrupt-TIME with an error record, and a new one is begun.
    // False with the reason, the store closed, when neither works. An open store stays as it is.
    bool Open(std::string& reason);

    bool IsOpen() const { return mDatabase != nullptr; }
    void Close();

    // Stores all of the reports or none, in one transaction, opening the store where needed; their
    // `id` is given by the store. True: they are on the disk. False with the reason: nothing was
    // stored; a database that turned out to be damaged, or could not be read or written at all, is opened
    // anew by the next call. One that was removed or moved meanwhile is begun anew, with a warning.
    bool Append(const std::vector<Report>& reports, std::string& reason);

private:
    int OpenOnce(std::string& reason);
    int CheckWhole(std::string& reason);
    void SetAside(const std::string& reason) const;
    bool IsGoneFromItsPath() const;

    const std::string mPath;
    sqlite3* mDatabase = nullptr;
};

// Reads the history through a connection of its own, which lasts as long as the object. A damaged or
// missing database gives false and the reason. Used by one thread at a time.
class ReportReader {
public:
    explicit ReportReader(const std::string& path);
    ~ReportReader();
    ReportReader(const ReportReader&) = delete;
    ReportReader& operator=(const ReportReader&) = delete;

    // An answer is cut short after the report with which its texts exceed this many bytes; who wants
    // the rest asks again with `after`.
    static constexpr std::size_t MAX_ANSWER_BYTES = 16U << 20U;

    // Oldest first unless the query says otherwise.
    bool Find(const ReportQuery& query, std::vector<Report>& reports, std::string& reason) const;

    // Fills `counts`. Where they are of an earlier call and the history has only grown since, what came after
    // is added, so that asking again and again costs nothing in a long history; otherwise all is counted.
    bool Count(ReportCounts& counts, std::string& reason) const;

    // Alerts about programs that were not blocked, those stored at `since` or later.
    bool Summarise(std::optional<std::int64_t> since, AlertSummary& summary, std::string& reason) const;

private:
    bool IsOpen(std::string& reason) const;
    int CountAll(ReportCounts& counts) const;
    int CountOn(ReportCounts& counts) const;

    const std::string mPath;
    sqlite3* mDatabase = nullptr;
    int mOpenResult = 0;
};

} // namespace Engine
