#include "ctl/policy/FileRules.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <set>

#include <sys/stat.h>

#include "ctl/Output.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using enum Severity;

constexpr const char* DIRS = "/content/dirs";
constexpr const char* EXTS = "/content/exts";

constexpr std::size_t MAX_RULES = 100;
constexpr std::size_t MAX_DIR_BYTES = 4095;
constexpr std::size_t MAX_EXT_BYTES = 19;

std::string PointTo(const char* array, Json::ArrayIndex index) {
    return std::string(array) + "/" + std::to_string(index);
}

bool IsForbiddenInExtension(char c) {
    return static_cast<unsigned char>(c) < 0x20U || static_cast<unsigned char>(c) >= 0x80U ||
           std::string("/\"*|<>.").find(c) != std::string::npos;
}

// The directory without symbolic links, "." and ".."; empty when there is none.
std::string Resolve(const std::string& path) {
    std::array<char, PATH_MAX> resolved{};
    return realpath(path.c_str(), resolved.data()) == nullptr ? "" : resolved.data();
}

std::string WithoutLastSlash(const std::string& path) {
    return path.size() > 1 && path.ends_with("/") ? path.substr(0, path.size() - 1) : path;
}

bool LiesOnRootMount(const struct stat& directory) {
    struct stat root {};
    return stat("/", &root) == 0 && root.st_dev == directory.st_dev;
}

class FileRules {
public:
    explicit FileRules(const Json::Value& content)
        : mContent(content), mMountMod(SDK::JsonUtils::GetBoolValue(content, "mount_mod", false)) {}

    std::vector<PolicyProblem> Check() {
        if (CheckArray("dirs", DIRS)) {
            CheckDirs(mContent["dirs"]);
        }
        if (CheckArray("exts", EXTS)) {
            CheckExts(mContent["exts"]);
        }
        return mProblems;
    }

private:
    void Add(Severity severity, const std::string& pointer, const std::string& reason) {
        mProblems.push_back({severity, pointer, reason});
    }

    // False when the module cannot use the array at all.
    bool CheckArray(const char* key, const char* pointer) {
        if (!SDK::JsonUtils::IsArrayValue(mContent, key)) {
            Add(ERROR, pointer,
                std::string(mContent.isMember(key) ? "is no array" : "is missing") +
                    ": directory mode requires it, nothing is watched");
            return false;
        }
        bool usable = true;
        const Json::Value& array = mContent[key];
        for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
            if (!array[i].isString()) {
                Add(ERROR, PointTo(pointer, i), "is no string: the whole array is refused, nothing is watched");
                usable = false;
            }
        }
        return usable;
    }

    void CheckDirs(const Json::Value& dirs) {
        std::size_t held = 0;
        std::set<std::string> seen;
        for (Json::ArrayIndex i = 0; i < dirs.size(); ++i) {
            const std::string path = dirs[i].asString();
            held += CheckDir(PointTo(DIRS, i), path) ? 1 : 0;
            if (!seen.insert(path).second) {
                Add(WARNING, PointTo(DIRS, i), "[" + path + "] is listed already");
            }
        }
        if (held > MAX_RULES) {
            Add(ERROR, DIRS,
                std::to_string(held) + " directories of at most " + std::to_string(MAX_RULES) +
                    ": the settings are refused, nothing is watched");
        } else if (dirs.size() > MAX_RULES) {
            Add(DANGER, DIRS,
                std::to_string(dirs.size()) + " entries: refused where more than " + std::to_string(MAX_RULES) +
                    " of them are there, which they are not on this host");
        }
        if (held == 0) {
            Add(DANGER, DIRS, "no directory of it is there: nothing is watched on this host");
        }
    }

    // False when the module leaves the directory out.
    bool CheckDir(const std::string& pointer, const std::string& path) {
        if (path.empty() || path.size() > MAX_DIR_BYTES) {
            Add(DANGER, pointer,
                "is " + Count(path.size(), "byte") + " long, not 1 to " + std::to_string(MAX_DIR_BYTES) + ": left out");
            return false;
        }
        struct stat status {};
        if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            Add(WARNING, pointer, "[" + path + "] is no directory on this host: left out");
            return false;
        }
        if (!path.starts_with("/")) {
            Add(DANGER, pointer, "[" + path + "] is relative: it means what the daemon's working directory says");
        } else if (Resolve(path) == "/") {
            Add(DANGER, pointer,
                mMountMod ? "mount_mod over \"/\": every file of the machine counts"
                          : "\"/\" has more directories than are watched, some 8,192: which ones is left to chance");
        } else if (mMountMod) {
            CheckPrefix(pointer, path, LiesOnRootMount(status));
        }
        return true;
    }

    // With mount_mod the configured text is compared with the paths that the kernel reports.
    void CheckPrefix(const std::string& pointer, const std::string& path, bool onRootMount) {
        const std::string resolved = Resolve(path);
        if (resolved != WithoutLastSlash(path)) {
            Add(DANGER, pointer,
                "[" + path + "] is not the path that accesses are reported with, [" + resolved +
                    "]: with mount_mod it matches nothing");
        } else if (!path.ends_with("/")) {
            Add(WARNING, pointer,
                "[" + path + "] also covers what merely begins with it, such as [" + path + "2/]: end it with \"/\"");
        }
        if (onRootMount) {
            Add(WARNING, pointer,
                "[" + path + "] lies on the root file system: every access there costs the agent a look");
        }
    }

    void CheckExts(const Json::Value& exts) {
        std::set<std::string> held;
        for (Json::ArrayIndex i = 0; i < exts.size(); ++i) {
            const std::string extension = exts[i].asString();
            if (!CheckExt(PointTo(EXTS, i), extension)) {
                continue;
            }
            if (!held.insert(extension).second) {
                Add(WARNING, PointTo(EXTS, i), "[" + extension + "] is listed already");
            }
        }
        if (held.size() > MAX_RULES) {
            Add(ERROR, EXTS,
                Count(held.size(), "extension") + " of at most " + std::to_string(MAX_RULES) +
                    ": the settings are refused, nothing is watched");
        }
        if (held.empty() && !exts.empty()) {
            Add(DANGER, EXTS, "every extension is left out, and none at all means all files");
        }
    }

    // False when the module leaves the extension out.
    bool CheckExt(const std::string& pointer, const std::string& extension) {
        if (extension.empty() || extension.size() > MAX_EXT_BYTES) {
            Add(DANGER, pointer,
                "is " + Count(extension.size(), "byte") + " long, not 1 to " + std::to_string(MAX_EXT_BYTES) +
                    ": left out");
            return false;
        }
        if (std::none_of(extension.begin(), extension.end(), IsForbiddenInExtension)) {
            return true;
        }
        const bool dotOnly =
            extension.front() == '.' && std::none_of(extension.begin() + 1, extension.end(), IsForbiddenInExtension);
        Add(DANGER, pointer,
            "[" + extension + "] " +
                (dotOnly ? "is written with its dot" : "has a character that no extension may have") + ": left out");
        return false;
    }

    const Json::Value& mContent;
    const bool mMountMod;
    std::vector<PolicyProblem> mProblems;
};

} // namespace

std::vector<PolicyProblem> CheckFileRules(const Json::Value& content) {
    return FileRules(content).Check();
}

} // namespace Ctl
