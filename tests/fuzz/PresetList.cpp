// A preset list's document, as the agent loads it and as corvalentctl checks it.

#include "ListModel.h"
#include "ctl/Failure.h"
#include "ctl/preset/PresetDocument.h"

namespace {

using Engine::ProcessManager;
using Fuzz::ListShape;

constexpr const char* FILE_NAME = "conf/preset.dat";

ProcessManager::PresetMap MakeBefore() {
    return {{"00", {"before", "00", "os", "1"}}};
}

Engine::PresetProcessInfo ReadEntry(const Json::Value& entry) {
    const auto textOf = [&](const char* key) {
        const Json::Value member = entry.isObject() ? entry.get(key, Json::nullValue) : Json::Value();
        return member.isString() ? member.asString() : std::string();
    };
    return {textOf("filename"), textOf("sha256"), textOf("os"), textOf("version")};
}

ProcessManager::PresetMap Expect(const Fuzz::ListDocument& document) {
    ProcessManager::PresetMap list;
    for (const Json::Value& entry : document.entries) {
        const Engine::PresetProcessInfo info = ReadEntry(entry);
        list.emplace(info.sha256, info);
    }
    return list;
}

std::vector<Ctl::Preset::Entry> ToEntries(const ProcessManager::PresetMap& list) {
    std::vector<Ctl::Preset::Entry> entries;
    for (const auto& [digest, info] : list) {
        entries.push_back({info.filename, info.sha256, info.os, info.version});
    }
    return entries;
}

// Nothing when corvalentctl refuses the document.
std::optional<std::vector<Ctl::Preset::Entry>> CheckedByCtl(const std::string& text) {
    try {
        return Ctl::Preset::FromDocument(text, "preset");
    } catch (const Ctl::Failure&) {
        return std::nullopt;
    }
}

// What passes the operator's check is what the agent then knows.
void CompareWithCtl(const std::string& text, const ProcessManager::PresetMap& list) {
    const auto checked = CheckedByCtl(text);
    if (!checked) {
        return;
    }
    ProcessManager::PresetMap meant;
    for (const Ctl::Preset::Entry& entry : *checked) {
        meant.emplace(entry.sha256, Engine::PresetProcessInfo{entry.filename, entry.sha256, entry.os, entry.version});
    }
    Fuzz::RequireSame(Fuzz::Describe(list), Fuzz::Describe(meant), "corvalentctl and the agent read the same entries");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static Fuzz::TrustEngine engine;
    ProcessManager& manager = engine.manager;
    const std::string text = Fuzz::ToText(data, size);
    const std::string file = engine.root.Write(FILE_NAME, text);

    ProcessManager::PresetMap list = MakeBefore();
    const bool loaded = manager.LoadPresetProcInfoFromFile(file, list);

    const Fuzz::ListDocument document = Fuzz::ReadListDocument(text);
    Fuzz::Require(loaded == (document.shape == ListShape::List), "a list is loaded exactly when the file holds one");
    if (document.shape == ListShape::NotJson) {
        Fuzz::RequireSame(Fuzz::Describe(list), Fuzz::Describe(MakeBefore()),
                          "a file that cannot be parsed changes nothing");
        Fuzz::Require(!CheckedByCtl(text), "corvalentctl refuses what the agent cannot parse");
        return 0;
    }
    Fuzz::RequireSame(Fuzz::Describe(list), Fuzz::Describe(Expect(document)), "the list is what the file says");
    CompareWithCtl(text, list);

    engine.root.Write(FILE_NAME, Ctl::Preset::ToDocument(ToEntries(list)));
    ProcessManager::PresetMap again;
    Fuzz::Require(manager.LoadPresetProcInfoFromFile(file, again), "a list that is written can be loaded");
    Fuzz::RequireSame(Fuzz::Describe(again), Fuzz::Describe(list), "and is the same");
    return 0;
}
