#pragma once

#include <functional>
#include <string>
#include <vector>

#include <json/value.h>

#include "sdk/JsonUtils.h"

namespace TestSupport {

// A feature policy as somebody may write it, good or bad.
struct PolicyCase {
    std::string what;
    std::string text;
};

inline Json::Value TaskWith(const std::string& condition) {
    Json::Value task;
    SDK::JsonUtils::ParseJsonStr(R"({"task_condition": )" + condition + "}", task);
    return task;
}

// A policy for global mode that has no problem at all.
inline Json::Value GoodPolicy() {
    Json::Value policy;
    policy["module_name"] = "whitelist_module";
    policy["feature_name"] = "whitelist_feature";
    policy["enabled"] = "enabled";
    policy["feature_hash"] = "h1";
    Json::Value& content = policy["content"];
    content["learning_days"] = 7;
    content["action_block"] = false;
    content["full_proc_task"] = TaskWith(R"({"period": 60})");
    content["process_manager_task"] = TaskWith("{}");
    content["learn_status_check_task"] = TaskWith("{}");
    return policy;
}

// The same for directory mode, with one directory.
inline Json::Value GoodDirectoryPolicy(const std::string& directory) {
    Json::Value policy = GoodPolicy();
    Json::Value& content = policy["content"];
    content.removeMember("full_proc_task");
    content["dir_mod"] = true;
    content["dirs"].append(directory);
    content["exts"].append("key");
    content["specified_file_audit_task"] = TaskWith("{}");
    return policy;
}

inline Json::Value MakeTexts(const std::string& first, int count) {
    Json::Value texts(Json::arrayValue);
    for (int i = 0; i < count; ++i) {
        texts.append(first + std::to_string(i));
    }
    return texts;
}

inline Json::Value Repeat(const std::string& text, int count) {
    Json::Value texts(Json::arrayValue);
    for (int i = 0; i < count; ++i) {
        texts.append(text);
    }
    return texts;
}

// Policies of every kind: those that are accepted with all they say, those that are accepted although
// a part is unusable, those that are refused. `directory` is one that is there. None blocks; whether
// they switch the feature on is the caller's to say.
inline std::vector<PolicyCase> MakePolicyCases(const std::string& directory, const std::string& enabled) {
    using Change = std::function<void(Json::Value & policy, Json::Value & content)>;
    std::vector<PolicyCase> cases = {
        {"empty", " "},
        {"no JSON", "{\"module_name\": "},
        {"a number with a leading zero", R"({"content": {"learning_days": 07}})"},
        {"a control character in a string", "{\"module_name\": \"whitelist\tmodule\"}"},
        {"a repeated key", R"({"enabled": "enabled", "enabled": "enabled"})"},
        {"a trailing comma", R"({"enabled": "enabled",})"},
        {"text behind the end", "{} {}"},
        {"too deep", std::string(100000, '[')},
        {"an array", "[]"},
        {"a string", "\"policy\""},
        {"an empty object", "{}"},
    };
    const auto add = [&](const std::string& what, Json::Value policy, const Change& change) {
        // One with the tag of its predecessor would not be looked at.
        policy["feature_hash"] = what;
        policy["enabled"] = enabled;
        change(policy, policy["content"]);
        cases.push_back({what, SDK::JsonUtils::JsonToString(policy)});
    };
    const auto addGlobal = [&](const std::string& what, const Change& change) { add(what, GoodPolicy(), change); };
    const auto addDirectory = [&](const std::string& what, const Change& change) {
        add(what, GoodDirectoryPolicy(directory), change);
    };
    using V = Json::Value&;
    addGlobal("good", [](V, V) {});
    addGlobal("another module", [](V policy, V) { policy["module_name"] = "Whitelist_module"; });
    addGlobal("no module", [](V policy, V) { policy.removeMember("module_name"); });
    addGlobal("a module that is no string", [](V policy, V) { policy["module_name"] = 1; });
    addGlobal("another feature", [](V policy, V) { policy["feature_name"] = "other"; });
    addGlobal("no feature", [](V policy, V) { policy.removeMember("feature_name"); });
    addGlobal("no content", [](V policy, V) { policy.removeMember("content"); });
    addGlobal("content is an array", [](V policy, V) { policy["content"] = Json::Value(Json::arrayValue); });
    addGlobal("content is null", [](V policy, V) { policy["content"] = Json::nullValue; });
    addGlobal("empty content", [](V policy, V) { policy["content"] = Json::Value(Json::objectValue); });
    addGlobal("switched off", [](V policy, V) { policy["enabled"] = "Enabled"; });
    addGlobal("too many days", [](V, V content) { content["learning_days"] = 45; });
    addGlobal("days as text", [](V, V content) { content["learning_days"] = "7"; });
    addGlobal("a mode as text", [](V, V content) { content["dir_mod"] = "true"; });
    addGlobal("rules that global mode does not read", [](V, V content) { content["dirs"] = 5; });
    addGlobal("an audit task that global mode does not read",
              [](V, V content) { content["specified_file_audit_task"] = Json::Value(Json::objectValue); });
    addGlobal("a period of 0", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": 0})"); });
    addGlobal("a negative period", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": -1})"); });
    addGlobal("a period as text", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": "60"})"); });
    addGlobal("half a second", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": 0.5})"); });
    addGlobal("a period of 60.0", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": 60.0})"); });
    addGlobal("a period of null", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": null})"); });
    addGlobal("a period beyond 32 bits",
              [](V, V content) { content["full_proc_task"] = TaskWith(R"({"period": 4294967296})"); });
    addGlobal("no period", [](V, V content) { content["full_proc_task"] = TaskWith("{}"); });
    addGlobal("a misspelled period", [](V, V content) { content["full_proc_task"] = TaskWith(R"({"perod": 60})"); });
    addGlobal("a condition that is an array", [](V, V content) { content["full_proc_task"] = TaskWith("[]"); });
    addGlobal("a condition that is a number", [](V, V content) { content["process_manager_task"] = TaskWith("5"); });
    addGlobal("a condition that is null", [](V, V content) { content["learn_status_check_task"] = TaskWith("null"); });
    addGlobal("no condition", [](V, V content) { content["process_manager_task"] = Json::Value(Json::objectValue); });
    addGlobal("a task that is an array",
              [](V, V content) { content["learn_status_check_task"] = Json::Value(Json::arrayValue); });
    addGlobal("a task that is text", [](V, V content) { content["process_manager_task"] = "{"; });
    addGlobal("a task that is a number", [](V, V content) { content["full_proc_task"] = 60; });
    addGlobal("a task that is null", [](V, V content) { content["learn_status_check_task"] = Json::nullValue; });
    addGlobal("no tasks", [](V, V content) {
        for (const char* task : {"full_proc_task", "process_manager_task", "learn_status_check_task"}) {
            content.removeMember(task);
        }
    });
    addDirectory("good directory mode", [](V, V) {});
    addDirectory("no directories", [](V, V content) { content["dirs"] = Json::Value(Json::arrayValue); });
    addDirectory("dirs missing", [](V, V content) { content.removeMember("dirs"); });
    addDirectory("dirs are text", [](V, V content) { content["dirs"] = "/srv"; });
    addDirectory("a number among the directories", [](V, V content) { content["dirs"].append(5); });
    addDirectory("a directory that is not there", [](V, V content) { content["dirs"].append("/nowhere/at all"); });
    addDirectory("an empty directory name", [](V, V content) { content["dirs"].append(""); });
    addDirectory("100 directories", [&](V, V content) { content["dirs"] = Repeat(directory, 100); });
    addDirectory("101 directories", [&](V, V content) { content["dirs"] = Repeat(directory, 101); });
    addDirectory("101 directories that are not there",
                 [](V, V content) { content["dirs"] = MakeTexts("/nowhere/", 101); });
    addDirectory("exts missing", [](V, V content) { content.removeMember("exts"); });
    addDirectory("exts are an object", [](V, V content) { content["exts"] = Json::Value(Json::objectValue); });
    addDirectory("null among the extensions", [](V, V content) { content["exts"].append(Json::nullValue); });
    addDirectory("no extensions", [](V, V content) { content["exts"] = Json::Value(Json::arrayValue); });
    addDirectory("an extension with its dot", [](V, V content) { content["exts"].append(".key"); });
    addDirectory("100 extensions", [](V, V content) { content["exts"] = MakeTexts("e", 100); });
    addDirectory("101 extensions", [](V, V content) { content["exts"] = MakeTexts("e", 101); });
    addDirectory("101 extensions that are left out", [](V, V content) { content["exts"] = MakeTexts(".e", 101); });
    addDirectory("101 times the same extension", [](V, V content) { content["exts"] = Repeat("key", 101); });
    addDirectory("an audit task without its condition",
                 [](V, V content) { content["specified_file_audit_task"] = Json::Value(Json::objectValue); });
    addDirectory("a period of 0 of the audit task",
                 [](V, V content) { content["specified_file_audit_task"] = TaskWith(R"({"period": 0})"); });
    addDirectory("a scan task that directory mode does not read",
                 [](V, V content) { content["full_proc_task"] = Json::Value(Json::objectValue); });
    return cases;
}

} // namespace TestSupport
