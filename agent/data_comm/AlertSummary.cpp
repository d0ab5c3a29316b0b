#include "agent/data_comm/AlertSummary.h"

#include <algorithm>

#include <sqlite3.h>

#include "agent/data_comm/ReportStore.h"
#include "agent/data_comm/Sqlite.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

// What a row holds decides whether it counts, never whether the rest does: SQLite's JSON functions fail
// on a text that is no JSON, and CASE is what keeps them from seeing one. Paths and users are taken as the JSON
// that they are written in: SQLite would not know the bytes that are no UTF-8 in them.
constexpr const char* SELECT_PROGRAMS =
    "WITH alerts AS MATERIALIZED ("
    " SELECT time, CASE WHEN json_valid(data) THEN json_extract(data, '$.process_info') END AS process"
    " FROM reports WHERE type = ?1 AND time >= ?2 AND typeof(time) = 'integer'),"
    "seen AS ("
    " SELECT time,"
    "  process -> '$.process_path' AS path,"
    "  coalesce(json_extract(process, '$.process_hash'), '') AS hash,"
    "  coalesce(nullif(nullif(process -> '$.process_username', '\"\"'), 'null'),"
    "   process -> '$.process_uid') AS user"
    " FROM alerts WHERE CASE WHEN json_valid(process) THEN json_type(process, '$.process_path') = 'text'"
    "  AND json_extract(process, '$.block') = 0 END)"
    "SELECT path, hash, count(*), min(time), max(time), json_group_array(DISTINCT user)"
    " FROM seen GROUP BY path, hash ORDER BY count(*) DESC, max(time) DESC, path, hash LIMIT ?3";

// A text or number written in JSON.
std::string ReadScalar(const std::string& json) {
    Json::Value scalar;
    SDK::JsonUtils::ParseJsonStr("[" + json + "]", scalar);
    return scalar.isArray() && scalar.size() == 1 && !scalar[0].isArray() ? scalar[0].asString() : "";
}

std::vector<std::string> ReadUsers(const std::string& array) {
    Json::Value names;
    SDK::JsonUtils::ParseJsonStr(array, names);
    std::vector<std::string> users;
    for (const Json::Value& name : names) {
        if (name.isString()) {
            users.push_back(ReadScalar(name.asString()));
        }
    }
    std::sort(users.begin(), users.end());
    return users;
}

} // namespace

int SummariseAlerts(sqlite3* database, std::optional<std::int64_t> since, AlertSummary& summary) {
    Statement select(database, SELECT_PROGRAMS);
    const std::string alertType = ReportStore::ALERT_TYPE;
    // One more, to know whether there are more.
    const auto limit = static_cast<std::int64_t>(AlertSummary::MAX_PROGRAMS + 1);
    for (const int bound : {select.Bind(1, alertType), select.Bind(2, since.value_or(0)), select.Bind(3, limit)}) {
        if (bound != SQLITE_OK) {
            return bound;
        }
    }
    int result = select.Step();
    for (; result == SQLITE_ROW; result = select.Step()) {
        if (summary.programs.size() == AlertSummary::MAX_PROGRAMS) {
            summary.complete = false;
            return SQLITE_OK;
        }
        summary.programs.push_back({ReadScalar(select.Text(0)), select.Text(1), select.Integer(2), select.Integer(3),
                                    select.Integer(4), ReadUsers(select.Text(5))});
    }
    return result == SQLITE_DONE ? SQLITE_OK : result;
}

} // namespace Engine
