#include <memory>

#include "ctl/Client.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using SDK::JsonUtils;
using Rows = std::vector<std::vector<std::string>>;

std::string DescribeMode(const Json::Value& status) {
    constexpr int DETECTING = 3;
    if (Member(status, "mode").isNull()) {
        return Paint("not known", Colour::RED) + " (" + Field(status, "mode_error") + ")";
    }
    const std::string text = Field(status, "mode") + " (" + Field(status, "mode_name") + ")";
    return Paint(text, JsonUtils::GetIntValue(status, "mode", 0) == DETECTING ? Colour::GREEN : Colour::YELLOW);
}

std::string DescribePolicy(const Json::Value& policy) {
    if (!policy.isObject()) {
        return "none accepted yet";
    }
    const std::string enabled = JsonUtils::GetBoolValue(policy, "enabled", false) ? "enabled" : "not enabled";
    return "hash " + Field(policy, "hash") + ", accepted " +
           FormatTime(JsonUtils::GetInt64Value(policy, "accepted_time", 0)) + ", " + enabled;
}

// "3 lost", in red unless it is none.
std::string DescribeFailures(const Json::Value& object, const char* key, const std::string& what) {
    const std::string text = Field(object, key) + " " + what;
    return JsonUtils::GetInt64Value(object, key, 0) > 0 ? Paint(text, Colour::RED) : text;
}

std::string DescribeEvents(const Json::Value& events) {
    return Field(events, "exec") + " exec, " + Field(events, "fork") + " fork, " + Field(events, "exit") + " exit, " +
           Field(events, "judged") + " judged, " + DescribeFailures(events, "lost", "lost");
}

std::string DescribeFiles(const Json::Value& files) {
    return Field(files, "marks") + " marks, " + DescribeFailures(files, "failed_marks", "failed") + "; " +
           Field(files, "read") + " accesses, " + Field(files, "judged") + " judged, " +
           DescribeFailures(files, "overflow", "overflows") + ", " + DescribeFailures(files, "lost", "lost");
}

std::string DescribeBlocking(const Json::Value& blocking) {
    if (!blocking.isObject()) {
        return "not known";
    }
    std::string text = JsonUtils::GetBoolValue(blocking, "policy", false) ? "asked for" : "not asked for";
    text += JsonUtils::GetBoolValue(blocking, "in_force", false) ? ", in force" : ", not in force";
    // Directory mode has no floor.
    if (JsonUtils::GetInt64Value(blocking, "floor", 0) > 0) {
        text += "; " + Field(blocking, "entries") + " entries count, more than " + Field(blocking, "floor") + " needed";
    }
    return text;
}

std::string DescribeScope(const Json::Value& status) {
    const std::string cgroup = JsonUtils::GetStringValue(status, "scope", "");
    return cgroup.empty() ? "the whole machine" : "control group " + Escape(cgroup);
}

Rows DescribeAgent(const Json::Value& status) {
    const Json::Value lists = Member(status, "lists");
    return {
        {"mode", DescribeMode(status)},
        {"learned", Field(status, "learned_minutes") + " of " + Field(status, "learn_period_minutes") + " minutes"},
        {"detection", JsonUtils::GetBoolValue(status, "desired_detect", false) ? "wished" : "not wished"},
        {"policy", DescribePolicy(Member(status, "policy"))},
        {"lists", Field(lists, "local") + " local, " + Field(lists, "server") + " server, " +
                      Field(lists, "os_preset") + " OS preset, " + Field(lists, "service_preset") + " service preset"},
        {"blocking", DescribeBlocking(Member(status, "blocking"))},
        {"events", DescribeEvents(Member(status, "events"))},
        {"files", DescribeFiles(Member(status, "files"))},
        {"alerts", Field(status, "alerts")},
        {"scope", DescribeScope(status)},
        {"agent", "version " + Field(status, "version") + ", pid " + Field(status, "pid") + ", up " +
                      FormatDuration(JsonUtils::GetInt64Value(status, "uptime_seconds", 0))},
    };
}

Rows DescribeTasks(const Json::Value& tasks) {
    Rows rows = {{"TASK", "STATE", "QUEUED", "CAPACITY", "LOST"}};
    for (const Json::Value& task : tasks) {
        rows.push_back({Field(task, "name"), Field(task, "state"), Field(task, "depth"), Field(task, "capacity"),
                        Field(task, "lost")});
    }
    return rows;
}

Rows DescribeCounters(const Json::Value& counters) {
    Rows rows = {{"COUNTER", "VALUE"}};
    if (counters.isObject()) {
        for (const std::string& name : counters.getMemberNames()) {
            rows.push_back({Escape(name), Field(counters, name.c_str())});
        }
    }
    return rows;
}

void ShowStatus(const Context& context, bool json) {
    const Json::Value status = Client(context.root).Get("/status");
    if (json) {
        PrintJson(status);
    } else {
        PrintTable(DescribeAgent(status));
        PrintLine("");
        PrintTable(DescribeTasks(Member(status, "tasks")));
        PrintLine("");
        PrintTable(DescribeCounters(Member(status, "counters")));
    }
    FlushOutput();
}

} // namespace

void AddStatusVerb(CLI::App& app, const Context& context) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* verb = app.add_subcommand("status", "Show the mode, what was learned, the tasks and the counters");
    verb->add_flag("--json", *json, "One JSON value on one line");
    verb->callback([&context, json] { ShowStatus(context, *json); });
}

} // namespace Ctl
