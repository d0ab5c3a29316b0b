#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>

#include "SpecifiedFileAudit.h"
#include "support/TempRoot.h"
#include "unit/module_whitelist/engine/TrustEngineTest.h"

namespace AuditTest {

using Engine::ProcessInfo;
using Engine::SpecifiedFileAudit;
using EngineTest::NOBODY;
using Poco::Message;

constexpr std::uint64_t EVERY_ENTRY = std::numeric_limits<std::uint64_t>::max();

// The directories and extensions of a policy in directory mode.
struct Scope {
    std::vector<std::string> dirs = {};
    std::vector<std::string> exts = {};
    bool mountMod = false;
    bool block = false;
};

inline std::uint64_t InodeOf(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        throw std::runtime_error("cannot stat " + path);
    }
    return file.st_ino;
}

// The file audit of a fresh agent, with files of the test's own to be accessed.
class FileAuditTest : public EngineTest::TrustEngineTest {
protected:
    void GivenScope(std::int64_t mode, const Scope& scope = {}) {
        Json::Value settings(Json::objectValue);
        settings["dir_mod"] = true;
        settings["mount_mod"] = scope.mountMod;
        settings["action_block"] = scope.block;
        settings["dirs"] = ToJson(scope.dirs);
        settings["exts"] = ToJson(scope.exts);
        ConfigureWith(mode, settings);
        log.Clear();
    }

    // A process, which need not live, as the trust engine knows it, with nothing left to look up.
    static ProcessInfo Process(int pid, const std::string& path) {
        ProcessInfo info = EngineTest::Record(path, "hash of " + path);
        info.pid = pid;
        return info;
    }
    // Puts that process in the trust engine's table, in place of one with the same pid.
    void GivenProcess(int pid, const std::string& path) const { engine.AddToAllProcessMap(Process(pid, path)); }

    std::string MakeDir(const std::string& name) const {
        std::filesystem::create_directories(files / name);
        return files / name;
    }

    TestSupport::TempDir files;
    SpecifiedFileAudit& audit = SpecifiedFileAudit::Instance();

private:
    static Json::Value ToJson(const std::vector<std::string>& texts) {
        Json::Value array(Json::arrayValue);
        for (const std::string& text : texts) {
            array.append(text);
        }
        return array;
    }
};

} // namespace AuditTest
