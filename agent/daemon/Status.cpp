#include "agent/daemon/Status.h"

#include <initializer_list>
#include <string>

#include <unistd.h>

#include "agent/daemon/Modules.h"
#include "framework/Scope.h"
#include "sdk/JsonUtils.h"

namespace Daemon {

namespace {

// {KIND: value of the counter "GROUP.KIND"}.
Json::Value Pick(const Json::Value& counters, const std::string& group, std::initializer_list<const char*> kinds) {
    Json::Value picked(Json::objectValue);
    for (const char* kind : kinds) {
        const std::string name = group + "." + kind;
        picked[kind] = Json::Int64{SDK::JsonUtils::GetInt64Value(counters, name.c_str(), 0)};
    }
    return picked;
}

} // namespace

Status::Status(const Framework::Engine& engine, const Deliveries& deliveries)
    : mEngine(engine), mDeliveries(deliveries) {}

Json::Value Status::Collect() const {
    Json::Value status = mEngine.CollectStatus();
    status["events"] = Pick(status["counters"], "events", {"exec", "fork", "exit", "judged", "lost"});
    AddFiles(status);
    AddMode(status);
    AddPolicy(status);
    AddAlerts(status);
    const auto uptime = std::chrono::steady_clock::now() - mStart;
    status["desired_detect"] = mDeliveries.IsDetectionWished();
    status["scope"] = Framework::Scope::GetCgroup();
    status["pid"] = getpid();
    status["uptime_seconds"] = Json::Int64{std::chrono::duration_cast<std::chrono::seconds>(uptime).count()};
    status["version"] = CORVALENT_VERSION;
    return status;
}

void Status::AddMode(Json::Value& status) const {
    const Json::Value answer = AskModule(mEngine, WHITELIST_MODULE);
    for (const char* key : {"mode", "mode_name", "learned_minutes", "learn_period_minutes", "lists", "blocking"}) {
        status[key] = answer.get(key, Json::nullValue);
    }
    if (answer.isMember("error")) {
        status["mode_error"] = answer["error"];
    }
}

// What the watches on files amount to, of all watching tasks together.
void Status::AddFiles(Json::Value& status) const {
    Json::Value files = Pick(status["counters"], "files", {"read", "posted", "judged", "overflow", "lost"});
    Json::Value watchers;
    SDK::JsonUtils::GetSubobjectValue(AskModule(mEngine, FILES_MODULE), "watchers", watchers);
    for (const char* kind : {"marks", "failed_marks"}) {
        std::int64_t sum = 0;
        for (const Json::Value& watcher : watchers) {
            sum += SDK::JsonUtils::GetInt64Value(watcher, kind, 0);
        }
        files[kind] = Json::Int64{sum};
    }
    status["files"] = files;
}

void Status::AddPolicy(Json::Value& status) const {
    status["policy"] = mDeliveries.GetPolicy();
    if (status["policy"].isObject()) {
        status["policy"].removeMember("document");
    }
}

void Status::AddAlerts(Json::Value& status) const {
    status["alerts"] = AskModule(mEngine, REPORTS_MODULE, "count").get("alerts", Json::nullValue);
}

} // namespace Daemon
