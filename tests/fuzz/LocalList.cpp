// The local trust list's file, conf/whitelist.data: what is read from it, and what is written back.

#include <filesystem>

#include "ListModel.h"

namespace {

using Engine::ProcessManager;
using Fuzz::ListShape;

constexpr const char* FILE_NAME = "conf/whitelist.data";

ProcessManager::LocalTrustMap Expect(const Fuzz::ListDocument& document) {
    ProcessManager::LocalTrustMap list;
    for (const Json::Value& entry : document.entries) {
        if (const auto info = Fuzz::ReadTrustEntry(entry)) {
            list.emplace(info->path, *info);
        }
    }
    return list;
}

// What is left of the list at the next start: entries are stored with the size that their file has now, and
// one without a size is none.
ProcessManager::LocalTrustMap ExpectLater(const ProcessManager::LocalTrustMap& list) {
    ProcessManager::LocalTrustMap left;
    for (const auto& [path, info] : list) {
        std::error_code error;
        // The system sees a path up to its first NUL byte.
        const std::filesystem::path seen = path.c_str();
        if (std::filesystem::is_regular_file(seen, error) && std::filesystem::file_size(seen, error) > 0) {
            left.emplace(path, info).first->second.size = static_cast<std::int64_t>(std::filesystem::file_size(seen));
        }
    }
    return left;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static Fuzz::TrustEngine engine;
    static const std::string program = engine.root.Write("program", "a program");
    static const std::string empty = engine.root.Write("empty", "");
    const Fuzz::WorkingIn folder(engine.root.Path());
    ProcessManager& manager = engine.manager;

    // A start with the file.
    engine.root.Write(FILE_NAME, Fuzz::ToText(data, size));
    manager.Onstart();
    const Fuzz::ListDocument document = Fuzz::ReadListDocument(Fuzz::ToText(data, size));
    const auto list = manager.CopyLocalTrust();
    Fuzz::RequireSame(Fuzz::Describe(list), Fuzz::Describe(Expect(document)), "the list is what the file says");
    Fuzz::Require(manager.CountLocalTrust() == list.size(), "every entry is counted");

    // Entries that come later do not replace those that are there, and nothing comes of what is no list.
    manager.Onstart();
    const bool merged = manager.ParseJsonProcessInfo(reinterpret_cast<const char*>(data), size);
    Fuzz::Require(merged == (document.shape == ListShape::List), "only a list document is merged");
    Fuzz::RequireSame(Fuzz::Describe(manager.CopyLocalTrust()), Fuzz::Describe(list),
                      "a list merged with itself is the same");

    // Stored and loaded.
    Fuzz::Require(manager.PersistencyLocalProcess(), "the list is stored");
    const std::string stored = engine.root.Read(FILE_NAME);
    Fuzz::Require(manager.InitLocalProcessFromFile(), "what is stored can be loaded");
    manager.Onstart();
    const auto later = manager.CopyLocalTrust();
    Fuzz::RequireSame(Fuzz::Describe(later), Fuzz::Describe(ExpectLater(list)),
                      "the next start knows what still has a file");

    // From here on nothing changes any more.
    Fuzz::Require(manager.PersistencyLocalProcess() && manager.InitLocalProcessFromFile(), "and is stored again");
    Fuzz::RequireSame(Fuzz::Describe(manager.CopyLocalTrust()), Fuzz::Describe(later),
                      "read, written and read it is the same");
    if (later.size() == list.size()) {
        Fuzz::RequireSame(engine.root.Read(FILE_NAME), stored, "and so are the bytes");
    }
    return 0;
}
