// The server's trust list: the document that comes as a command, and its file.

#include "ListModel.h"
#include "utils/ListDocument.h"

namespace {

using Engine::ProcessManager;
using Fuzz::ListShape;

// In force before each input.
const std::string BEFORE = R"({"process_info":[{"path":"/bin/before","name":"before","hash":"00","size":1,"type":1}]})";

ProcessManager::ServerTrustMap Expect(const Fuzz::ListDocument& document) {
    ProcessManager::ServerTrustMap groups;
    for (const Json::Value& entry : document.entries) {
        if (const auto info = Fuzz::ReadTrustEntry(entry)) {
            groups[info->name].push_back(*info);
        }
    }
    return groups;
}

// A document of the list's entries, written as agents write theirs.
std::string Write(const ProcessManager::ServerTrustMap& list) {
    utils::list_document::ListWriter writer;
    for (const auto& [name, group] : list) {
        Json::Value entries(Json::arrayValue);
        for (const Engine::ProcessInfo& info : group) {
            entries.append(Fuzz::ToJson(info));
        }
        writer.Append(entries);
    }
    return writer.Finish();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static Fuzz::TrustEngine engine;
    ProcessManager& manager = engine.manager;
    const std::string text = Fuzz::ToText(data, size);
    manager.SyncServerTrustProcess(BEFORE.data(), BEFORE.size());
    const std::string before = Fuzz::Describe(manager.CopyServerTrust());

    manager.SyncServerTrustProcess(text.data(), text.size());

    const Fuzz::ListDocument document = Fuzz::ReadListDocument(text);
    const auto list = manager.CopyServerTrust();
    if (document.shape == ListShape::NotJson) {
        Fuzz::RequireSame(Fuzz::Describe(list), before, "a document that cannot be parsed changes nothing");
        return 0;
    }
    Fuzz::RequireSame(Fuzz::Describe(list), Fuzz::Describe(Expect(document)), "the list is what the document says");

    const std::string written = Write(list);
    manager.SyncServerTrustProcess(written.data(), written.size());
    Fuzz::RequireSame(Fuzz::Describe(manager.CopyServerTrust()), Fuzz::Describe(list),
                      "a list that is written reads as it was");

    Fuzz::Require(manager.PersistencyServerProcess(text.data(), text.size()) &&
                      engine.root.Read("conf/arsserverproc.data") == text,
                  "the document is stored as it came");
    Fuzz::Require(manager.InitServerProcessFromFile(), "and can be loaded");
    Fuzz::RequireSame(Fuzz::Describe(manager.CopyServerTrust()), Fuzz::Describe(list),
                      "a list that is stored loads as it was");
    return 0;
}
