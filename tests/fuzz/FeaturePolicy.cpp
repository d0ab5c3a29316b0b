// The feature policy: the settings that it brings, the task policies, whether it is taken at all, and whether
// `corvalentctl policy check` knows all that beforehand.

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <climits>
#include <json/value.h>

#include "ConfigManager.h"
#include "WhitelistModule.h"
#include "WhitelistPolicy.h"
#include "ctl/policy/PolicyCheck.h"
#include "fuzz/Fuzz.h"
#include "sdk/JsonUtils.h"

namespace {

using Engine::ConfigManager;
using Engine::WhitelistPolicy;
using SDK::JsonUtils;

// The state file says: a week has been learned, detection was on. Longer periods than that go on learning.
constexpr const char* STATE = "[Driver]\nLearnTime=10080\nLearnMod=3\n";

struct Agent {
    Agent() {
        root.Write("conf/modwhitelist.ini", STATE);
        root.Write("watched/a/b/file", "");
        root.Write("watched/c/file", "");
        std::filesystem::create_directory_symlink("..", root / "watched/c/up");
        ConfigManager::Instance()->Init();
    }

    const Fuzz::LogCheck log;
    const TestSupport::TempRoot root{std::filesystem::canonical(Fuzz::FolderForFiles())};
};

// Only directories below the root are expanded, not all that the machine has.
bool StaysInside(const std::string& root, const Json::Value& policy) {
    Json::Value content;
    Json::Value dirs;
    if (!JsonUtils::GetSubobjectValue(policy, "content", content) ||
        !JsonUtils::GetSubobjectValue(content, "dirs", dirs) || !dirs.isArray()) {
        return true;
    }
    return std::all_of(dirs.begin(), dirs.end(), [&](const Json::Value& dir) {
        char resolved[PATH_MAX];
        return !dir.isString() || realpath(dir.asCString(), resolved) == nullptr ||
               (std::string(resolved) + "/").starts_with(root + "/");
    });
}

// ---- Settings --------------------------------------------------------------------------------------

// Those that a policy brings.
struct Settings {
    std::int32_t learnPeriod = 0;
    std::int32_t actionBlock = 0;
    bool dirMod = false;
    bool mountMod = false;
    bool autoDetect = false;
    std::int32_t scanPeriodSeconds = 0;
    std::vector<std::string> dirs;
    std::set<std::string> exts;

    bool operator==(const Settings&) const = default;
};

template <typename Source> Settings Read(const Source& source) {
    return {source.GetLearnPeriod(), source.GetActionBlock(),       source.GetDirMod(), source.GetMountMod(),
            source.GetAutoDetect(),  source.GetScanPeriodSeconds(), source.GetDirs(),   source.GetExts()};
}

// A policy that brings them.
std::string ToPolicy(const Settings& settings) {
    Json::Value policy(Json::objectValue);
    Json::Value& content = policy["content"];
    content["learning_days"] = settings.learnPeriod / 1440;
    content["action_block"] = settings.actionBlock == 1;
    content["dir_mod"] = settings.dirMod;
    if (settings.dirMod) {
        content["mount_mod"] = settings.mountMod;
        content["dirs"] = content["exts"] = Json::Value(Json::arrayValue);
        for (const std::string& dir : settings.dirs) {
            content["dirs"].append(dir);
        }
        for (const std::string& extension : settings.exts) {
            content["exts"].append(extension);
        }
    } else {
        content["auto_detect"] = settings.autoDetect;
        content["scan_period_seconds"] = settings.scanPeriodSeconds;
    }
    return JsonUtils::JsonToString(policy);
}

void RequirePossible(const Settings& settings) {
    Fuzz::Require(settings.learnPeriod >= 1440 && settings.learnPeriod <= 30 * 1440 && settings.learnPeriod % 1440 == 0,
                  "learning lasts 1 to 30 days");
    Fuzz::Require(settings.dirs.size() <= 100 && settings.exts.size() <= 100, "there are 100 rules of a kind at most");
    Fuzz::Require(settings.dirMod || !settings.mountMod, "mounts are watched in directory mode only");
    Fuzz::Require(!settings.dirMod || !settings.autoDetect, "in directory mode detection waits for the server");
}

bool IsDirectoryRule(const std::string& dir) {
    std::error_code ignored;
    return !dir.empty() && dir.size() <= 4095 && std::filesystem::is_directory(dir.c_str(), ignored);
}

bool IsExtensionRule(const std::string& extension) {
    return !extension.empty() && extension.size() <= 19 && std::all_of(extension.begin(), extension.end(), [](char c) {
        return static_cast<signed char>(c) > 0x1F && std::string("/\"*|<>.").find(c) == std::string::npos;
    });
}

// The rules under a key that can be used.
template <typename IsRule>
std::vector<std::string> ReadRules(const Json::Value& content, const char* key, const IsRule& isRule) {
    std::vector<std::string> rules;
    for (const Json::Value& rule : content[key]) {
        if (rule.isString() && isRule(rule.asString())) {
            rules.push_back(rule.asString());
        }
    }
    return rules;
}

void RequireRulesSaid(const Settings& settings, const Json::Value& content) {
    const std::vector<std::string> extensions = ReadRules(content, "exts", IsExtensionRule);
    Fuzz::Require(settings.dirs == ReadRules(content, "dirs", IsDirectoryRule), "the directories are those said");
    Fuzz::Require(settings.exts == std::set<std::string>(extensions.begin(), extensions.end()),
                  "the extensions are those said");
}

void RequireExpanded(const Settings& settings) {
    const std::set<std::string> expanded = ConfigManager::Instance()->GetExpandedDirs();
    Fuzz::Require(expanded.size() <= ConfigManager::MAX_EXPANDED_DIRS + 1, "the expansion is bounded");
    for (const std::string& dir : settings.dirs) {
        Fuzz::Require(!settings.dirMod || expanded.count(dir) == 1, "what is configured is expanded", dir);
    }
}

void RequireSettingsSaid(const Settings& settings, const Json::Value& content) {
    const int days = JsonUtils::GetIntValue(content, "learning_days", 0);
    const bool dirMod = JsonUtils::GetBoolValue(content, "dir_mod", false);
    Fuzz::Require(settings.learnPeriod == 1440 * (days >= 1 && days <= 30 ? days : 7),
                  "learning lasts as long as said");
    Fuzz::Require(settings.actionBlock == (JsonUtils::GetBoolValue(content, "action_block", false) ? 1 : 0),
                  "it is blocked only where that is said");
    Fuzz::Require(settings.dirMod == dirMod, "the mode is the one that was said");
    Fuzz::Require(dirMod || settings.autoDetect == JsonUtils::GetBoolValue(content, "auto_detect", true),
                  "detection starts by itself as said");
    Fuzz::Require(dirMod || settings.scanPeriodSeconds == JsonUtils::GetIntValue(content, "scan_period_seconds", 3600),
                  "the period is the one that was said");
}

// ---- Task policies ---------------------------------------------------------------------------------

// Periods by name. A name that is there twice would be a finding of its own.
std::map<std::string, int> ReadTasks(const WhitelistPolicy& policy) {
    std::map<std::string, int> tasks;
    for (const auto& child : policy.GetChildren()) {
        const auto* task = dynamic_cast<const Framework::TaskPolicy*>(child.get());
        Fuzz::Require(task != nullptr && task->GetPeriodSeconds() >= 0, "a child is a task's policy");
        Fuzz::Require(tasks.emplace(task->GetName(), task->GetPeriodSeconds()).second, "a task has one policy");
    }
    return tasks;
}

std::string ToPolicy(const Settings& settings, const std::map<std::string, int>& tasks) {
    Json::Value policy;
    JsonUtils::ParseJsonStr(ToPolicy(settings), policy);
    for (const auto& [name, period] : tasks) {
        Json::Value& condition = policy["content"][name]["task_condition"];
        condition = Json::Value(Json::objectValue);
        if (period != 0) {
            condition["period"] = period;
        }
    }
    return JsonUtils::JsonToString(policy);
}

// ---- The checks ------------------------------------------------------------------------------------

// A policy for which nothing is wished, so that every input begins with the same settings.
void Forget() {
    ConfigManager::Instance()->ParsePolicy(R"({"content":{"dir_mod":true,"dirs":[],"exts":[]}})");
    ConfigManager::Instance()->ParsePolicy(R"({"content":{"learning_days":30,"action_block":true}})");
}

// Whether the settings were accepted.
bool CheckSettings(const std::string& text, const Json::Value& content) {
    ConfigManager& config = *ConfigManager::Instance();
    Forget();
    const Settings before = Read(config);
    const std::int64_t modBefore = config.GetMod();
    if (!config.ParsePolicy(text.c_str())) {
        Fuzz::Require(config.GetMod() == modBefore, "settings that are refused leave the mode alone");
        if (!content.isObject()) {
            Settings cleared = before;
            cleared.actionBlock = 0;
            cleared.autoDetect = false;
            Fuzz::Require(Read(config) == cleared, "a document without settings only withdraws what it must");
        }
        return false;
    }
    const Settings settings = Read(config);
    RequirePossible(settings);
    RequireExpanded(settings);
    RequireSettingsSaid(settings, content);
    if (settings.dirMod) {
        RequireRulesSaid(settings, content);
    }
    const bool hasLearned = settings.learnPeriod <= 10080;
    Fuzz::Require(config.GetMod() == (hasLearned ? Engine::MOD_DETECT : Engine::MOD_LEARN),
                  "the mode follows from the period");
    const std::set<std::string> expanded = config.GetExpandedDirs();
    Forget();
    const std::string again = ToPolicy(settings);
    Fuzz::Require(config.ParsePolicy(again.c_str()), "settings in force make an acceptable policy", again);
    Fuzz::Require(Read(config) == settings, "which brings them once more", again);
    Fuzz::Require(!settings.dirMod || config.GetExpandedDirs() == expanded, "and the same directories", again);
    return true;
}

// Whether the task policies were all accepted.
bool CheckTasks(const std::string& text) {
    WhitelistPolicy policy("whitelist_feature");
    const bool accepted = policy.Parse(text);
    const Settings settings = Read(policy);
    Fuzz::Require(settings == Read(*ConfigManager::Instance()), "the snapshot is what the module holds");
    if (accepted) {
        const std::map<std::string, int> tasks = ReadTasks(policy);
        WhitelistPolicy again("whitelist_feature");
        const std::string written = ToPolicy(settings, tasks);
        Fuzz::Require(again.Parse(written) && ReadTasks(again) == tasks, "a policy written anew has the same tasks",
                      written);
    }
    return accepted;
}

bool CheckDelivery(const std::string& text, const Json::Value& policy, const Json::Value& content) {
    Poco::AutoPtr<Engine::WhitelistModule> module(new Engine::WhitelistModule);
    WhitelistPolicy installed("installed");
    Framework::Policy* current = &installed;
    const std::unique_ptr<Framework::Policy> fresh(module->RefreshFeaturePolicy("10001", text, current));
    const bool isOurs = JsonUtils::GetStringValue(policy, "module_name", "") == "whitelist_module" &&
                        JsonUtils::GetStringValue(policy, "feature_name", "") == "whitelist_feature";
    Fuzz::Require((fresh != nullptr) == (isOurs && content.isObject()),
                  "a delivery is taken exactly when it is this module's and has settings");
    Fuzz::Require(current == &installed && installed.IsSuperseded() == (fresh != nullptr),
                  "the policy in force is superseded by one that is taken, and by nothing else");
    if (fresh) {
        const auto& feature = dynamic_cast<const WhitelistPolicy&>(*fresh);
        Fuzz::Require(feature.GetFeatureHash() == JsonUtils::GetStringValue(policy, "feature_hash", "") &&
                          feature.IsEnabled() == (JsonUtils::GetStringValue(policy, "enabled", "") == "enabled"),
                      "it bears the name and switch of the document");
    }
    return fresh != nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static const Agent agent;
    const Fuzz::WorkingIn folder(agent.root.Path());
    const std::string text = Fuzz::ToText(data, size);
    Json::Value policy;
    const bool isJson = JsonUtils::ParseJsonStr(text, policy) == 0;
    if (!StaysInside(agent.root.Path(), policy)) {
        return -1;
    }
    Json::Value content;
    JsonUtils::GetSubobjectValue(policy, "content", content);
    const bool delivered = CheckDelivery(text, policy, content);
    // Settings are read up to the first NUL byte; a text with one is no JSON and never gets as far.
    bool usedWhole = false;
    if (isJson) {
        const bool settingsAccepted = CheckSettings(text, content);
        usedWhole = CheckTasks(text) && settingsAccepted;
    }
    const std::vector<Ctl::PolicyProblem> problems = Ctl::CheckPolicy(text);
    const auto has = [&](const auto& fits) { return std::any_of(problems.begin(), problems.end(), fits); };
    Fuzz::Require(has([](const auto& problem) { return problem.refused; }) == !delivered,
                  "the check says that a policy is refused exactly when it is");
    Fuzz::Require(has([](const auto& problem) { return problem.severity == Ctl::Severity::ERROR; }) ==
                      (!delivered || !usedWhole),
                  "the check finds an error exactly when not all of a policy can be used");
    return 0;
}
