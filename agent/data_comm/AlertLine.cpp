#include "agent/data_comm/AlertLine.h"

#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

using SDK::JsonUtils;

// A member as one word; "-" when there is none.
std::string Word(const Json::Value& object, const char* key) {
    const std::string text = JsonUtils::GetStringValue(object, key, "");
    if (text.find_first_of(" \"") == std::string::npos) {
        return text.empty() ? "-" : text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string Number(const Json::Value& object, const char* key) {
    constexpr std::int64_t NONE = -1;
    const std::int64_t number = JsonUtils::GetInt64Value(object, key, NONE);
    return number == NONE ? "-" : std::to_string(number);
}

std::string User(const Json::Value& process) {
    const std::string name = Word(process, "process_username");
    return name == "-" ? Number(process, "process_uid") : name;
}

std::string CommandLine(const Json::Value& process) {
    const std::string text = JsonUtils::GetStringValue(process, "process_cmdline", "-");
    return text.size() > MAX_CMDLINE_BYTES ? text.substr(0, MAX_CMDLINE_BYTES) + "..." : text;
}

} // namespace

std::string FormatAlertLine(const std::string& document) {
    Json::Value alert;
    Json::Value process;
    if (JsonUtils::ParseJsonStr(document, alert) != 0 ||
        !JsonUtils::GetSubobjectValue(alert, "process_info", process) || !process.isObject()) {
        return "ALERT whose document cannot be read, " + std::to_string(document.size()) + " bytes";
    }
    const bool blocked = JsonUtils::GetIntValue(process, "block", 0) == 1;
    return "ALERT untrusted program " + Word(process, "process_path") + " pid " + Number(process, "process_pid") +
           " user " + User(process) + " sha256 " + Word(process, "process_hash") +
           (blocked ? " blocked" : " not blocked") + " event " + Word(alert, "event_id") + " cmdline " +
           CommandLine(process);
}

} // namespace Engine
