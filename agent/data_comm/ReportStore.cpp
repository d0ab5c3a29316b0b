#include "agent/data_comm/ReportStore.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <sqlite3.h>
#include <sys/stat.h>

#include "agent/data_comm/Sqlite.h"
#include "agent/sdk/OwnFile.h"
#include "sdk/FileUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog("data_comm");

// Short, because whoever meets a lock for longer tries again anyway, and a stop has to be quick.
constexpr int BUSY_TIMEOUT_MS = 200;

// A database up to this size is read through before it is used. A greater one would hold up the start;
// damage in it is met when the damaged page is.
constexpr std::int64_t MAX_CHECKED_BYTES = 256LL << 20U;

constexpr const char* SCHEMA = "PRAGMA journal_mode=WAL;"
                               "PRAGMA synchronous=FULL;"
                               "CREATE TABLE IF NOT EXISTS reports("
                               "id INTEGER PRIMARY KEY AUTOINCREMENT,"
                               "time INTEGER NOT NULL,"
                               "type TEXT NOT NULL,"
                               "data TEXT NOT NULL);"
                               "CREATE INDEX IF NOT EXISTS reports_type ON reports(type);"
                               "CREATE INDEX IF NOT EXISTS reports_time ON reports(time);";

bool IsDamage(int result) {
    const int primary = result & 0xFF;
    return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

// Of a connection that has met one of these nothing is to be expected, even when the cause is gone: one that
// was opened while the file could not be written stays one that cannot write.
bool IsConnectionLost(int result) {
    const int primary = result & 0xFF;
    return IsDamage(result) || primary == SQLITE_READONLY || primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN;
}

int Execute(sqlite3* database, const char* sql) {
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

std::string FreeNameBeside(const std::string& path) {
    const std::string base = path + ".corrupt-" + std::to_string(SDK::TimeUtils::GetCurrentTimestampS());
    std::string name = base;
    std::error_code ignored;
    for (int i = 1; std::filesystem::exists(std::filesystem::symlink_status(name, ignored)); ++i) {
        name = base + "." + std::to_string(i);
    }
    return name;
}

int InsertAll(sqlite3* database, const std::vector<Report>& reports) {
    Statement insert(database, "INSERT INTO reports(time, type, data) VALUES(?1, ?2, ?3)");
    for (const Report& report : reports) {
        for (const int result :
             {insert.Bind(1, report.time), insert.Bind(2, report.type), insert.Bind(3, report.data)}) {
            if (result != SQLITE_OK) {
                return result;
            }
        }
        if (const int result = insert.Step(); result != SQLITE_DONE) {
            return result;
        }
        insert.Reset();
    }
    return SQLITE_OK;
}

int InsertInOneTransaction(sqlite3* database, const std::vector<Report>& reports) {
    int result = Execute(database, "BEGIN IMMEDIATE");
    if (result != SQLITE_OK) {
        return result;
    }
    result = InsertAll(database, reports);
    if (result == SQLITE_OK) {
        result = Execute(database, "COMMIT");
    }
    return result;
}

// SQLite would follow a link, and write to a file that has other names, too.
int CheckPlace(const std::string& path) {
    struct stat file {};
    return lstat(path.c_str(), &file) == 0 ? SDK::CheckOwnFile(file) : 0;
}

std::string SelectText(const ReportQuery& query) {
    std::string sql = "SELECT id, time, type, data FROM reports WHERE 1";
    if (query.type) {
        sql += " AND type = ?1";
    }
    if (query.since) {
        sql += " AND time >= ?2";
    }
    if (query.after) {
        sql += " AND id > ?3";
    }
    return sql + (query.newestFirst ? " ORDER BY id DESC" : " ORDER BY id ASC") + " LIMIT ?4";
}

int BindQuery(Statement& select, const ReportQuery& query) {
    int result = select.Bind(4, static_cast<std::int64_t>(std::clamp(query.limit, 0, ReportQuery::MAX_LIMIT)));
    if (result == SQLITE_OK && query.type) {
        result = select.Bind(1, *query.type);
    }
    if (result == SQLITE_OK && query.since) {
        result = select.Bind(2, *query.since);
    }
    if (result == SQLITE_OK && query.after) {
        result = select.Bind(3, *query.after);
    }
    return result;
}

} // namespace

bool ReportStore::Open(std::string& reason) {
    if (IsOpen()) {
        return true;
    }
    int result = OpenOnce(reason);
    if (IsDamage(result)) {
        SetAside(reason);
        result = OpenOnce(reason);
    }
    return result == SQLITE_OK;
}

int ReportStore::OpenOnce(std::string& reason) {
    if (const int error = CheckPlace(mPath); error != 0) {
        reason = "[" + mPath + "] is no file of the agent's own: " + std::strerror(error);
        return SQLITE_CANTOPEN;
    }
    int result = sqlite3_open_v2(mPath.c_str(), &mDatabase, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (result == SQLITE_OK) {
        sqlite3_busy_timeout(mDatabase, BUSY_TIMEOUT_MS);
        result = Execute(mDatabase, SCHEMA);
    }
    if (result != SQLITE_OK) {
        reason = mDatabase == nullptr ? sqlite3_errstr(result) : sqlite3_errmsg(mDatabase);
    } else {
        result = CheckWhole(reason);
    }
    if (result != SQLITE_OK) {
        Close();
    }
    return result;
}

int ReportStore::CheckWhole(std::string& reason) {
    std::int64_t size = 0;
    if (SDK::FileUtils::GetFileSize(mPath, size) == 0 && size > MAX_CHECKED_BYTES) {
        return SQLITE_OK;
    }
    Statement check(mDatabase, "PRAGMA quick_check(1)");
    const int result = check.Step();
    if (result != SQLITE_ROW) {
        reason = sqlite3_errmsg(mDatabase);
        return result;
    }
    const std::string verdict = check.Text(0);
    if (verdict == "ok") {
        return SQLITE_OK;
    }
    reason = verdict;
    return SQLITE_CORRUPT;
}

void ReportStore::SetAside(const std::string& reason) const {
    const std::string aside = FreeNameBeside(mPath);
    std::error_code error;
    std::filesystem::rename(mPath, aside, error);
    if (error) {
        moduleLog.Error("reports database [%s] is damaged (%s) and cannot be moved aside: %s", mPath, reason,
                        error.message());
        return;
    }
    // The log of changes goes with the file that it belongs to; a new database must not meet it.
    std::filesystem::rename(mPath + "-wal", aside + "-wal", error);
    std::filesystem::remove(mPath + "-shm", error);
    moduleLog.Error("reports database [%s] is damaged (%s): moved aside to [%s], a new one is begun", mPath, reason,
                    aside);
}

void ReportStore::Close() {
    sqlite3_close_v2(mDatabase);
    mDatabase = nullptr;
}

// What an operator does who makes room, for example. SQLite would go on in the file that has no name any more.
bool ReportStore::IsGoneFromItsPath() const {
    int moved = 0;
    return IsOpen() && sqlite3_file_control(mDatabase, "main", SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK &&
           moved != 0;
}

bool ReportStore::Append(const std::vector<Report>& reports, std::string& reason) {
    if (IsGoneFromItsPath()) {
        moduleLog.Warning("reports database [%s] is gone: a new one is begun", mPath);
        Close();
    }
    if (!Open(reason)) {
        return false;
    }
    const int result = InsertInOneTransaction(mDatabase, reports);
    if (result == SQLITE_OK) {
        return true;
    }
    reason = sqlite3_errmsg(mDatabase);
    if (sqlite3_get_autocommit(mDatabase) == 0) {
        Execute(mDatabase, "ROLLBACK");
    }
    if (IsConnectionLost(result)) {
        Close();
    }
    return false;
}

ReportReader::ReportReader(const std::string& path)
    : mPath(path), mOpenResult(sqlite3_open_v2(path.c_str(), &mDatabase, SQLITE_OPEN_READONLY, nullptr)) {
    if (mOpenResult == SQLITE_OK) {
        sqlite3_busy_timeout(mDatabase, BUSY_TIMEOUT_MS);
    }
}

ReportReader::~ReportReader() {
    sqlite3_close_v2(mDatabase);
}

bool ReportReader::IsOpen(std::string& reason) const {
    if (mOpenResult != SQLITE_OK) {
        reason = sqlite3_errstr(mOpenResult);
    }
    return mOpenResult == SQLITE_OK;
}

bool ReportReader::Find(const ReportQuery& query, std::vector<Report>& reports, std::string& reason) const {
    if (!IsOpen(reason)) {
        return false;
    }
    Statement select(mDatabase, SelectText(query));
    int result = BindQuery(select, query);
    std::size_t bytes = 0;
    while (result == SQLITE_OK || result == SQLITE_ROW) {
        result = select.Step();
        if (result != SQLITE_ROW) {
            break;
        }
        reports.push_back({select.Integer(0), select.Integer(1), select.Text(2), select.Text(3)});
        bytes += reports.back().data.size();
        if (bytes > MAX_ANSWER_BYTES) {
            return true;
        }
    }
    if (result != SQLITE_DONE) {
        reason = sqlite3_errmsg(mDatabase);
    }
    return result == SQLITE_DONE;
}

bool ReportReader::Count(ReportCounts& counts, std::string& reason) const {
    if (!IsOpen(reason)) {
        return false;
    }
    struct stat file {};
    static_cast<void>(stat(mPath.c_str(), &file));
    ReportCounts counted = counts;
    const bool isOfThisFile = counts.lastId != 0 && counts.inode == file.st_ino;
    int result = isOfThisFile ? CountOn(counted) : SQLITE_OK;
    const bool hasOnlyGrown =
        result == SQLITE_ROW && counted.firstId == counts.firstId && counted.lastId >= counts.lastId;
    if (!hasOnlyGrown) {
        result = CountAll(counted);
    }
    if (result != SQLITE_ROW) {
        reason = sqlite3_errmsg(mDatabase);
        return false;
    }
    counts = counted;
    counts.inode = file.st_ino;
    return true;
}

// SQLITE_ROW or an error. The reports themselves are not read, only the index of their types.
int ReportReader::CountAll(ReportCounts& counts) const {
    Statement select(mDatabase, "SELECT (SELECT count(*) FROM reports), "
                                "(SELECT count(*) FROM reports WHERE type = ?1), "
                                "(SELECT min(id) FROM reports), (SELECT max(id) FROM reports)");
    const std::string alertType = ReportStore::ALERT_TYPE;
    int result = select.Bind(1, alertType);
    if (result == SQLITE_OK) {
        result = select.Step();
    }
    if (result == SQLITE_ROW) {
        counts = {select.Integer(0), select.Integer(1), counts.inode, select.Integer(2), select.Integer(3)};
    }
    return result;
}

// Adds the reports behind counts.lastId, and says where the history begins and ends now. SQLITE_ROW or an error.
int ReportReader::CountOn(ReportCounts& counts) const {
    Statement select(mDatabase, "SELECT count(*), coalesce(sum(type = ?1), 0), "
                                "(SELECT min(id) FROM reports), (SELECT max(id) FROM reports) "
                                "FROM reports WHERE id > ?2");
    const std::string alertType = ReportStore::ALERT_TYPE;
    int result = select.Bind(1, alertType);
    if (result == SQLITE_OK) {
        result = select.Bind(2, counts.lastId);
    }
    if (result == SQLITE_OK) {
        result = select.Step();
    }
    if (result == SQLITE_ROW) {
        counts = {counts.total + select.Integer(0), counts.alerts + select.Integer(1), counts.inode, select.Integer(2),
                  select.Integer(3)};
    }
    return result;
}

bool ReportReader::Summarise(std::optional<std::int64_t> since, AlertSummary& summary, std::string& reason) const {
    if (!IsOpen(reason)) {
        return false;
    }
    const int result = SummariseAlerts(mDatabase, since, summary);
    if (result != SQLITE_OK) {
        reason = sqlite3_errmsg(mDatabase);
    }
    return result == SQLITE_OK;
}

} // namespace Engine
