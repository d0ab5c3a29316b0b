#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "sdk/PathUtils.h"

namespace TestSupport {

// A directory of the test's own, removed with all it holds.
class TempDir {
public:
    // In the folder `parent`.
    explicit TempDir(const std::string& parent = "/tmp") : mPath(parent + "/corvalent-test-XXXXXX") {
        if (mkdtemp(mPath.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(mPath, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    // Without a trailing "/".
    const std::string& Path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

    // Writes a file below the directory, making the folders on the way; returns its path.
    std::string Write(const std::string& name, const std::string& content) const {
        const std::filesystem::path path = mPath + "/" + name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
        return path.string();
    }

    // The file's bytes; "<missing>" when there is none.
    std::string Read(const std::string& name) const { return ReadText(mPath + "/" + name); }

    static std::string ReadText(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            return "<missing>";
        }
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

private:
    std::string mPath;
};

// An installation root of the test's own, with the folders that an installed one has; the SDK's
// installation path leads to it.
class TempRoot : public TempDir {
public:
    explicit TempRoot(const std::string& parent = "/tmp") : TempDir(parent) {
        for (const char* folder : {"conf", "data", "log", "run"}) {
            std::filesystem::create_directory(Path() + "/" + folder);
        }
        SDK::PathUtils::SetInstallationPath(Path());
    }
};

} // namespace TestSupport
