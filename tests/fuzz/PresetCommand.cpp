// The command that says where a preset list is to be fetched: {"url", "hash"}.

#include <openssl/sha.h>

#include "FakeDownload.h"
#include "ListModel.h"

namespace {

using Engine::ProcessManager;
using Fuzz::ListShape;

constexpr const char* FILE_NAME = "conf/osPresetProcess.dat";

// The list in force, and a newer one that is on the disk already.
const std::string IN_FORCE = R"({"process_info":[{"sha256":"00","filename":"in force"}]})";
const std::string ON_DISK = R"({"process_info":[{"sha256":"11","filename":"on disk"}]})";

std::string Digest(const std::string& text) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> bytes{};
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes.data());
    std::string digest;
    for (const unsigned char byte : bytes) {
        digest += "0123456789abcdef"[byte >> 4U];
        digest += "0123456789abcdef"[byte & 15U];
    }
    return digest;
}

struct Command {
    std::string url;
    std::string hash;
};

// Nothing for a command on which nothing is done. It ends with its first NUL byte.
std::optional<Command> Read(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(std::string(text.c_str()), root) != 0 || !root.isObject()) {
        return std::nullopt;
    }
    const Json::Value url = root.get("url", "");
    const Json::Value hash = root.get("hash", "");
    if (!url.isString() || url.asString().empty() || !hash.isString() || hash.asString().size() != 64) {
        return std::nullopt;
    }
    return Command{url.asString(), hash.asString()};
}

std::string ListOf(const std::string& text) {
    ProcessManager::PresetMap list;
    for (const Json::Value& entry : Fuzz::ReadListDocument(text).entries) {
        const auto textOf = [&](const char* key) { return SDK::JsonUtils::GetStringValue(entry, key, ""); };
        list.emplace(textOf("sha256"),
                     Engine::PresetProcessInfo{textOf("filename"), textOf("sha256"), textOf("os"), textOf("version")});
    }
    return Fuzz::Describe(list);
}

// What the command must come to.
struct Expectation {
    bool done = false;
    bool asksForDownload = false;
    std::string onDisk = ON_DISK;
    std::string list = ListOf(IN_FORCE);
};

Expectation Expect(const std::optional<Command>& command) {
    Expectation expected;
    if (!command) {
        return expected;
    }
    if (command->hash != Digest(ON_DISK)) {
        expected.asksForDownload = true;
        if (!command->url.starts_with(Fuzz::SERVE)) {
            return expected;
        }
        expected.onDisk = command->url.substr(Fuzz::SERVE.size());
    }
    const ListShape shape = Fuzz::ReadListDocument(expected.onDisk).shape;
    expected.done = shape == ListShape::List;
    if (shape != ListShape::NotJson) {
        expected.list = ListOf(expected.onDisk);
    }
    return expected;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static Fuzz::TrustEngine engine;
    ProcessManager& manager = engine.manager;
    engine.root.Write(FILE_NAME, IN_FORCE);
    manager.Onstart();
    engine.root.Write(FILE_NAME, ON_DISK);
    Fuzz::TakeDownloads();

    const bool done = manager.SyncOsPresetProcess(reinterpret_cast<const char*>(data), size);

    const std::optional<Command> command = Read(Fuzz::ToText(data, size));
    const Expectation expected = Expect(command);
    const std::vector<Fuzz::Download> downloads = Fuzz::TakeDownloads();
    Fuzz::Require(done == expected.done, "the command is done exactly when it leaves a list");
    Fuzz::Require(downloads.size() == (expected.asksForDownload ? 1U : 0U), "only what is needed is fetched");
    if (expected.asksForDownload) {
        Fuzz::Require(downloads[0].url == command->url && downloads[0].sha256 == command->hash &&
                          downloads[0].destination == engine.root / FILE_NAME,
                      "it is fetched as the command says");
    }
    Fuzz::RequireSame(engine.root.Read(FILE_NAME), expected.onDisk, "the file is the one that was asked for");
    Fuzz::RequireSame(Fuzz::Describe(manager.CopyOsPreset()), expected.list, "the list is the file's");
    Fuzz::Require(manager.CountServicePreset() == 0, "the other preset list is untouched");
    return 0;
}
