#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <openssl/sha.h>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "support/AgentAround.h"
#include "support/FakeTasks.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace EngineTest {

using Engine::ConfigManager;
using Engine::ProcessInfo;
using Engine::ProcessManager;
using Poco::Message;

constexpr std::int64_t LIMIT_BYTES = 10485760;

// Never the pid of a process: beyond the kernel's PID_MAX_LIMIT.
constexpr int NOBODY = 5000000;

// The SHA-256 of a text, in the form in which digests are stored.
inline std::string Digest(const std::string& text) {
    unsigned char bytes[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes);
    std::string digest;
    for (const unsigned char byte : bytes) {
        digest += "0123456789abcdef"[byte >> 4];
        digest += "0123456789abcdef"[byte & 15];
    }
    return digest;
}

inline std::string DigestOfFile(const std::string& path) {
    return Digest(TestSupport::TempDir::ReadText(path));
}

// How often anybody in this process has asked for the digest of a file.
inline std::uint64_t DigestsSoFar() {
    const SDK::DigestFigures figures = SDK::FileUtils::GetDigestFigures();
    return figures.hits + figures.misses;
}

inline std::string NameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// A list's entry as the agent writes it.
inline std::string Entry(const std::string& path, const std::string& hash, std::int64_t size, int type = 1) {
    return R"({"hash":")" + hash + R"(","name":")" + NameOf(path) + R"(","path":")" + path + R"(","size":)" +
           std::to_string(size) + R"(,"type":)" + std::to_string(type) + "}";
}

inline std::string PresetEntry(const std::string& sha256, const std::string& filename = "file",
                               const std::string& os = "Linux", const std::string& version = "1") {
    return R"({"filename":")" + filename + R"(","os":")" + os + R"(","sha256":")" + sha256 + R"(","version":")" +
           version + R"("})";
}

inline std::string List(const std::vector<std::string>& entries) {
    std::string text;
    for (const std::string& entry : entries) {
        text += (text.empty() ? "" : ",") + entry;
    }
    return R"({"process_info":[)" + text + "]}";
}

// `count` entries that stand for nothing that exists, each with a path, a name and a digest of its own.
inline std::vector<std::string> FillerEntries(int count, const std::string& kind) {
    std::vector<std::string> entries;
    for (int i = 0; i < count; ++i) {
        const std::string path = "/filler/" + kind + std::to_string(i);
        entries.push_back(Entry(path, Digest(path), 1));
    }
    return entries;
}

inline Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text, value), 0) << text;
    return value;
}

// A record as trust lists hold it.
inline ProcessInfo Record(const std::string& path, const std::string& hash, int type = Engine::MATCH_HASH) {
    ProcessInfo info;
    info.path = path;
    info.name = NameOf(path);
    info.hash = hash;
    info.type = type;
    info.detailRetrieved = true;
    return info;
}

// The trust engine of a fresh agent: an empty root, the tasks around it running and recording, the
// engine initialised, no list loaded.
class TrustEngineTest : public testing::Test {
protected:
    TrustEngineTest() : engine(*ProcessManager::Instance()), reporter(new TestSupport::IdleTask("reporter")) {
        EXPECT_TRUE(engine.Init(static_cast<Framework::Task*>(reporter.get())));
        log.Clear();
    }
    ~TrustEngineTest() override { engine.ForgetTask(reporter.get()); }

    // Puts the agent in this mode.
    void Configure(std::int64_t mode, bool dirMod = false, bool block = false) const {
        Json::Value settings(Json::objectValue);
        settings["dir_mod"] = dirMod;
        settings["action_block"] = block;
        ConfigureWith(mode, settings);
    }

    // The same with a policy that has these members as its content.
    void ConfigureWith(std::int64_t mode, Json::Value settings) const {
        const int learnedMinutes = mode == Engine::MOD_LEARN ? 0 : 1440;
        root.Write("conf/modwhitelist.ini", "[Driver]\nLearnTime=" + std::to_string(learnedMinutes) +
                                                "\nLearnMod=" + std::to_string(mode) + "\n");
        settings["learning_days"] = 1;
        for (const char* rules : {"dirs", "exts"}) {
            if (!settings.isMember(rules)) {
                settings[rules] = Json::Value(Json::arrayValue);
            }
        }
        Json::Value policy(Json::objectValue);
        policy["content"] = settings;
        ASSERT_TRUE(ConfigManager::Instance()->Init());
        ASSERT_TRUE(ConfigManager::Instance()->ParsePolicy(SDK::JsonUtils::JsonToString(policy).c_str()));
        ASSERT_EQ(ConfigManager::Instance()->GetMod(), mode);
    }

    void SyncServer(const std::string& document) const {
        engine.SyncServerTrustProcess(document.data(), document.size());
    }

    bool ParseLocal(const std::string& document) const {
        return engine.ParseJsonProcessInfo(document.data(), document.size());
    }

    // Loads a preset list the way it comes: as a file that is there already.
    bool SyncPreset(const std::string& fileName, const std::string& document) const {
        root.Write("conf/" + fileName, document);
        const std::string command = R"({"url": "http://127.0.0.1:1/unused", "hash": ")" + Digest(document) + "\"}";
        return fileName == OS_PRESET ? engine.SyncOsPresetProcess(command.data(), command.size())
                                     : engine.SyncServicePresetProcess(command.data(), command.size());
    }

    // How many records have any priority up to and including this one.
    long CountUpTo(Message::Priority priority) const {
        long count = 0;
        for (const auto& record : log.Records()) {
            count += record.priority <= priority ? 1 : 0;
        }
        return count;
    }

    // A program of the test's own, a copy of `original`.
    std::string CopyProgram(const std::string& original, const std::string& name) const {
        const std::filesystem::path copy = root.Path() + "/programs/" + name;
        std::filesystem::create_directories(copy.parent_path());
        std::filesystem::copy_file(original, copy);
        return copy.string();
    }

    static constexpr const char* OS_PRESET = "osPresetProcess.dat";
    static constexpr const char* SERVICE_PRESET = "servicePresetProcess.dat";

    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    // After the application, whose construction sends all loggers to the console.
    TestSupport::LogRecorder log;
    ProcessManager& engine;
    Poco::AutoPtr<TestSupport::IdleTask> reporter;
};

} // namespace EngineTest
