#include "agent/daemon/Settings.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <limits>
#include <map>

#include <arpa/inet.h>
#include <json/value.h>
#include <netinet/in.h>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Daemon {

namespace {

constexpr std::uint64_t MAX_FILE_BYTES = 1U << 20U;
constexpr std::int64_t MIN_LOG_BYTES = 4096;
constexpr int MAX_LOG_FILES = 1000;
constexpr int MAX_PORT = 65535;
// Far above the number of cores of any machine, times 100.
constexpr int MAX_BUDGET_PERCENT = 1000000;

// Takes over the value of the member called `name`. Returns what is wrong with it, "" if nothing.
using Reader = std::function<std::string(const std::string& name, const Json::Value& value)>;
using Readers = std::map<std::string, Reader>;

std::string Fault(const std::string& name, const std::string& wanted) {
    return "\"" + name + "\" has to be " + wanted;
}

Reader Number(std::int64_t min, std::int64_t max, const std::function<void(std::int64_t)>& take) {
    return [=](const std::string& name, const Json::Value& value) -> std::string {
        if (!value.isInt64() || value.asInt64() < min || value.asInt64() > max) {
            return Fault(name, "a whole number from " + std::to_string(min) + " to " + std::to_string(max));
        }
        take(value.asInt64());
        return "";
    };
}

Reader Flag(bool& flag) {
    return [&flag](const std::string& name, const Json::Value& value) -> std::string {
        if (!value.isBool()) {
            return Fault(name, "true or false");
        }
        flag = value.asBool();
        return "";
    };
}

Reader Level(std::string& level) {
    return [&level](const std::string& name, const Json::Value& value) -> std::string {
        static const std::array<const char*, 8> LEVELS = {"fatal",  "critical",    "error", "warning",
                                                          "notice", "information", "debug", "trace"};
        if (!value.isString() || std::find(LEVELS.begin(), LEVELS.end(), value.asString()) == LEVELS.end()) {
            return Fault(name, "one of fatal, critical, error, warning, notice, information, debug, trace");
        }
        level = value.asString();
        return "";
    };
}

Reader Target(SDK::LogTarget& target) {
    return [&target](const std::string& name, const Json::Value& value) -> std::string {
        static const std::map<std::string, SDK::LogTarget> TARGETS = {
            {"auto", SDK::LogTarget::AUTO}, {"file", SDK::LogTarget::FILE}, {"journal", SDK::LogTarget::JOURNAL}};
        const auto found = value.isString() ? TARGETS.find(value.asString()) : TARGETS.end();
        if (found == TARGETS.end()) {
            return Fault(name, "one of auto, file, journal");
        }
        target = found->second;
        return "";
    };
}

bool IsLoopback(const std::string& address) {
    constexpr std::uint32_t FIRST_BYTE = 0xFF000000;
    constexpr std::uint32_t LOOPBACK_NET = 0x7F000000;
    in_addr four{};
    in6_addr six{};
    if (inet_pton(AF_INET, address.c_str(), &four) == 1) {
        return (ntohl(four.s_addr) & FIRST_BYTE) == LOOPBACK_NET;
    }
    return inet_pton(AF_INET6, address.c_str(), &six) == 1 && std::memcmp(&six, &in6addr_loopback, sizeof(six)) == 0;
}

Reader Loopback(std::string& address) {
    return [&address](const std::string& name, const Json::Value& value) -> std::string {
        if (!value.isString() || !IsLoopback(value.asString())) {
            return Fault(name, "a loopback address: 127.0.0.1, another one of 127.0.0.0/8, or ::1");
        }
        address = value.asString();
        return "";
    };
}

Reader Cgroup(std::string& cgroup) {
    return [&cgroup](const std::string& name, const Json::Value& value) -> std::string {
        if (!value.isString() || (!value.asString().empty() && value.asString().front() != '/')) {
            return Fault(name, "the path of a control group, beginning with \"/\"");
        }
        cgroup = value.asString();
        return "";
    };
}

std::string ReadMembers(const std::string& prefix, const Json::Value& object, const Readers& readers) {
    for (const std::string& key : object.getMemberNames()) {
        const std::string name = std::string(prefix).append(key);
        const auto reader = readers.find(key);
        if (reader == readers.end()) {
            return "unknown member \"" + name + "\"";
        }
        if (std::string fault = reader->second(name, object[key]); !fault.empty()) {
            return fault;
        }
    }
    return "";
}

Reader Object(const Readers& readers) {
    return [=](const std::string& name, const Json::Value& value) -> std::string {
        return value.isObject() ? ReadMembers(name + ".", value, readers) : Fault(name, "an object");
    };
}

// The port has no default: which one is free is the operator's to know.
Reader Metrics(Settings& settings) {
    const Reader members = Object(
        {{"address", Loopback(settings.metricsAddress)}, {"port", Number(1, MAX_PORT, [&settings](std::int64_t value) {
                                                              settings.metricsPort = static_cast<int>(value);
                                                          })}});
    return [=](const std::string& name, const Json::Value& value) -> std::string {
        std::string fault = members(name, value);
        return fault.empty() && !value.isMember("port") ? Fault(name, "an object with a \"port\"") : fault;
    };
}

Readers AllMembers(Settings& settings) {
    const Readers log = {
        {"level", Level(settings.logLevel)},
        {"max_bytes",
         Number(MIN_LOG_BYTES, std::numeric_limits<std::int64_t>::max(),
                [&settings](std::int64_t value) { settings.logMaxBytes = static_cast<std::uint64_t>(value); })},
        {"files",
         Number(1, MAX_LOG_FILES, [&settings](std::int64_t value) { settings.logFiles = static_cast<int>(value); })},
        {"console", Flag(settings.logConsole)},
        {"target", Target(settings.logTarget)},
    };
    return {
        {"scope", Object({{"cgroup", Cgroup(settings.cgroup)}})},
        {"cpu_budget_percent",
         Number(0, MAX_BUDGET_PERCENT,
                [&settings](std::int64_t value) { settings.cpuBudgetPercent = static_cast<int>(value); })},
        {"log", Object(log)},
        {"metrics", Metrics(settings)},
    };
}

} // namespace

bool Settings::Load(const std::string& path, Settings& settings, std::string& reason) {
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(path, text, MAX_FILE_BYTES); error != 0) {
        reason = path + ": " + std::strerror(error);
        return error == ENOENT;
    }
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, document) != 0 || !document.isObject()) {
        reason = path + ": not a JSON object";
        return false;
    }
    Settings read;
    if (const std::string fault = ReadMembers("", document, AllMembers(read)); !fault.empty()) {
        reason = path + ": " + fault;
        return false;
    }
    settings = read;
    return true;
}

} // namespace Daemon
