#include "agent/data_comm/DataCommModule.h"

#include <exception>

#include "agent/data_comm/DataCommTask.h"
#include "agent/data_comm/ReportStore.h"
#include "sdk/JsonUtils.h"
#include "sdk/PathUtils.h"

namespace Engine {

namespace {

Json::Value Problem(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

// Reads an optional whole number of at least 0. False when the member is there and is something else.
bool ReadNumber(const Json::Value& request, const char* key, std::optional<std::int64_t>& number) {
    Json::Value value;
    if (!SDK::JsonUtils::GetSubobjectValue(request, key, value)) {
        return true;
    }
    if (!value.isInt64() || value.asInt64() < 0) {
        return false;
    }
    number = value.asInt64();
    return true;
}

bool ReadQuery(const Json::Value& request, ReportQuery& query, std::string& problem) {
    std::optional<std::int64_t> limit;
    const bool numbersRead = ReadNumber(request, "since", query.since) && ReadNumber(request, "after", query.after) &&
                             ReadNumber(request, "limit", limit);
    if (!numbersRead) {
        problem = "since, after and limit are whole numbers of at least 0";
        return false;
    }
    if (limit && *limit < query.limit) {
        query.limit = static_cast<int>(*limit);
    }
    Json::Value type;
    if (SDK::JsonUtils::GetSubobjectValue(request, "type", type)) {
        if (!type.isString()) {
            problem = "type is a text";
            return false;
        }
        query.type = type.asString();
    }
    query.newestFirst = SDK::JsonUtils::GetBoolValue(request, "newest_first", false);
    return true;
}

Json::Value ToJson(const Report& report) {
    Json::Value value(Json::objectValue);
    value["id"] = Json::Int64{report.id};
    value["time"] = Json::Int64{report.time};
    value["type"] = report.type;
    Json::Value document;
    value["data"] = SDK::JsonUtils::ParseJsonStr(report.data, document) == 0 ? document : Json::Value(report.data);
    return value;
}

Json::Value FindReports(const Json::Value& request) {
    ReportQuery query;
    std::string problem;
    if (!ReadQuery(request, query, problem)) {
        return Problem(problem);
    }
    std::vector<Report> reports;
    if (!ReportReader(GetReportsPath()).Find(query, reports, problem)) {
        return Problem("the history of reports cannot be read: " + problem);
    }
    Json::Value answer(Json::objectValue);
    answer["reports"] = Json::Value(Json::arrayValue);
    for (const Report& report : reports) {
        answer["reports"].append(ToJson(report));
    }
    return answer;
}

Json::Value ToJson(const SeenProgram& program) {
    Json::Value value(Json::objectValue);
    value["path"] = program.path;
    value["hash"] = program.hash;
    value["count"] = Json::Int64{program.count};
    value["first_seen"] = Json::Int64{program.firstSeen};
    value["last_seen"] = Json::Int64{program.lastSeen};
    value["users"] = Json::Value(Json::arrayValue);
    for (const std::string& user : program.users) {
        value["users"].append(user);
    }
    return value;
}

Json::Value SummariseAlerts(const Json::Value& request) {
    std::optional<std::int64_t> since;
    if (!ReadNumber(request, "since", since)) {
        return Problem("since is a whole number of at least 0");
    }
    AlertSummary summary;
    std::string problem;
    if (!ReportReader(GetReportsPath()).Summarise(since, summary, problem)) {
        return Problem("the history of reports cannot be read: " + problem);
    }
    Json::Value answer(Json::objectValue);
    answer["complete"] = summary.complete;
    answer["programs"] = Json::Value(Json::arrayValue);
    for (const SeenProgram& program : summary.programs) {
        answer["programs"].append(ToJson(program));
    }
    return answer;
}

} // namespace

DataCommModule::DataCommModule() : Framework::Module(NAME) {}

int DataCommModule::Init() {
    if (const int result = Framework::Module::Init(); result != 0) {
        return result;
    }
    RegisterTask(new DataCommTask(GetReportsPath()), true);
    return 0;
}

Json::Value DataCommInspector::Ask(const Json::Value& request) {
    try {
        const std::string query = SDK::JsonUtils::GetStringValue(request, "query", "");
        if (query == "reports") {
            return FindReports(request);
        }
        if (query == "count") {
            return CountReports();
        }
        if (query == "alert_summary") {
            return SummariseAlerts(request);
        }
        return Problem("unknown query [" + query + "]");
    } catch (const std::exception& error) {
        return Problem(error.what());
    }
}

Json::Value DataCommInspector::CountReports() {
    const std::lock_guard guard(mMutex);
    std::string problem;
    if (!ReportReader(GetReportsPath()).Count(mCounts, problem)) {
        return Problem("the history of reports cannot be read: " + problem);
    }
    Json::Value answer(Json::objectValue);
    answer["total"] = Json::Int64{mCounts.total};
    answer["alerts"] = Json::Int64{mCounts.alerts};
    return answer;
}

std::string GetReportsPath() {
    return SDK::PathUtils::GetInstallationPath() + "data/reports.db";
}

} // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::DataCommModule;
}

extern "C" __attribute__((visibility("default"))) Framework::ModuleInspector* CreateModuleInspector() {
    return new Engine::DataCommInspector;
}
