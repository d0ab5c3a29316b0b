#include "agent/daemon/Status.h"

#include <unistd.h>

#include "agent/daemon/Detection.h"
#include "framework/Scope.h"
#include "sdk/JsonUtils.h"

namespace Daemon {

namespace {

constexpr const char* REPORTS_MODULE = "data_comm_module";

Json::Value Question(const char* query) {
    Json::Value request(Json::objectValue);
    request["query"] = query;
    return request;
}

Json::Value PickEvents(const Json::Value& counters) {
    Json::Value events(Json::objectValue);
    for (const char* kind : {"exec", "fork", "exit", "judged", "lost"}) {
        const std::string name = std::string("events.") + kind;
        events[kind] = Json::Int64{SDK::JsonUtils::GetInt64Value(counters, name.c_str(), 0)};
    }
    return events;
}

} // namespace

Status::Status(const Framework::Engine& engine, const Deliveries& deliveries)
    : mEngine(engine), mDeliveries(deliveries) {}

Json::Value Status::Collect() const {
    Json::Value status = mEngine.CollectStatus();
    status["events"] = PickEvents(status["counters"]);
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
    const Json::Value answer = mEngine.Ask(WHITELIST_MODULE, Question("status"));
    for (const char* key : {"mode", "mode_name", "learned_minutes", "learn_period_minutes", "lists"}) {
        status[key] = answer.isObject() ? answer.get(key, Json::nullValue) : Json::Value();
    }
    if (answer.isMember("error")) {
        status["mode_error"] = answer["error"];
    }
}

void Status::AddPolicy(Json::Value& status) const {
    status["policy"] = mDeliveries.GetPolicy();
    if (status["policy"].isObject()) {
        status["policy"].removeMember("document");
    }
}

void Status::AddAlerts(Json::Value& status) const {
    const Json::Value counts = mEngine.Ask(REPORTS_MODULE, Question("count"));
    status["alerts"] = counts.isObject() ? counts.get("alerts", Json::nullValue) : Json::Value();
}

} // namespace Daemon
