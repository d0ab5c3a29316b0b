#pragma once

#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "ProcessInfo.h"
#include "ProcessManager.h"
#include "fuzz/Fuzz.h"
#include "sdk/JsonUtils.h"

namespace Fuzz {

// What a list document should be read as, by parsing all of it at once and by the rules for entries once more.

enum class ListShape { NotJson, NoList, List };

struct ListDocument {
    ListShape shape = ListShape::NotJson;
    std::vector<Json::Value> entries;
};

inline ListDocument ReadListDocument(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text, root) != 0) {
        return {};
    }
    if (!root.isObject() || !root["process_info"].isArray()) {
        return {ListShape::NoList, {}};
    }
    ListDocument document{ListShape::List, {}};
    for (const Json::Value& entry : root["process_info"]) {
        document.entries.push_back(entry);
    }
    return document;
}

// A complete trust entry; nothing for any other value.
inline std::optional<Engine::ProcessInfo> ReadTrustEntry(const Json::Value& entry) {
    if (!entry.isObject()) {
        return std::nullopt;
    }
    const auto textOf = [&](const char* key) {
        const Json::Value member = entry.get(key, Json::nullValue);
        return member.isString() ? member.asString() : std::string();
    };
    Engine::ProcessInfo info;
    info.path = textOf("path");
    info.name = textOf("name");
    info.hash = textOf("hash");
    const Json::Value size = entry.get("size", 0);
    info.size = size.isInt64() ? size.asInt64() : 0;
    const Json::Value type = entry.get("type", 0);
    info.type = type.isInt() && type.asInt() != 0 ? type.asInt() : 1;
    if (info.path.empty() || info.name.empty() || info.hash.empty() || info.size == 0) {
        return std::nullopt;
    }
    return info;
}

inline std::string Describe(const Engine::ProcessInfo& info) {
    return info.path + "|" + info.name + "|" + info.hash + "|" + std::to_string(info.size) + "|" +
           std::to_string(info.type) + "\n";
}

inline std::string Describe(const Engine::PresetProcessInfo& info) {
    return info.filename + "|" + info.sha256 + "|" + info.os + "|" + info.version + "\n";
}

// Everything in a list, to be compared.
inline std::string Describe(const Engine::ProcessManager::LocalTrustMap& list) {
    std::string text;
    for (const auto& [path, info] : list) {
        text += path + ": " + Describe(info);
    }
    return text;
}

inline std::string Describe(const Engine::ProcessManager::ServerTrustMap& list) {
    std::string text;
    for (const auto& [name, group] : list) {
        text += name + ":\n";
        for (const Engine::ProcessInfo& info : group) {
            text += Describe(info);
        }
    }
    return text;
}

inline std::string Describe(const Engine::ProcessManager::PresetMap& list) {
    std::string text;
    for (const auto& [digest, info] : list) {
        text += digest + ": " + Describe(info);
    }
    return text;
}

inline void RequireSame(const std::string& found, const std::string& expected, const char* property) {
    Require(found == expected, property, "found:\n" + found + "expected:\n" + expected);
}

// The trust entry as documents hold it.
inline Json::Value ToJson(const Engine::ProcessInfo& info) {
    Json::Value entry(Json::objectValue);
    entry["path"] = info.path;
    entry["name"] = info.name;
    entry["hash"] = info.hash;
    entry["size"] = Json::Int64{info.size};
    entry["type"] = info.type;
    return entry;
}

// The trust engine of an agent with an empty root.
class TrustEngine {
public:
    TrustEngine() : root(FolderForFiles()), task("fuzzer", "fuzz", Framework::TaskCondition::TaskType::Thread, 1) {
        manager.Init(static_cast<Framework::Task*>(&task));
    }
    ~TrustEngine() { manager.ForgetTask(&task); }
    TrustEngine(const TrustEngine&) = delete;
    TrustEngine& operator=(const TrustEngine&) = delete;

    const LogCheck log;
    const TestSupport::TempRoot root;
    Engine::ProcessManager& manager = *Engine::ProcessManager::Instance();

private:
    // Through which reports would leave, if anybody took them.
    class NoWork : public Framework::Task {
    public:
        using Framework::Task::Task;
        int Run() override { return 0; }
    };
    NoWork task;
};

} // namespace Fuzz
