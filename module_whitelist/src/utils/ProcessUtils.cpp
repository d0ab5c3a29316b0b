#include "utils/ProcessUtils.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <unistd.h>

#include <Poco/Format.h>

#include "sdk/CpuThrottle.h"
#include "sdk/FileUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "utils/Constants.h"

namespace AntiransonwareProcessUtils {

namespace {

using Engine::MAX_FILE_BYTES;

SDK::ModuleLog moduleLog(Engine::LOGGER_NAME);
SDK::CpuThrottle throttle("module_whitelist/src/utils/ProcessUtils", Engine::MODULE_NAME);

constexpr std::size_t MAX_CMDLINE_BYTES = 4096;
constexpr std::size_t HASH_CHARACTERS = 64;

// The limit for the digest of a process's own image link differs from the general one.
constexpr std::uint64_t MAX_IMAGE_LINK_BYTES = 4096;

// The entry of the interpreter list that stands for every name beginning with it.
const std::string PYTHON = "python";

bool NamesInterpreter(const std::string& entry, const std::string& imageName) {
    return entry == PYTHON ? imageName.compare(0, PYTHON.size(), PYTHON) == 0 : entry == imageName;
}

// False for an error and for a target that does not fit.
bool ReadLink(const std::string& link, std::string& target) {
    std::array<char, 4096> buffer{};
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (static_cast<std::uint32_t>(length) > buffer.size() - 1) {
        return false;
    }
    target.assign(buffer.data(), static_cast<std::size_t>(length));
    return true;
}

// The file name in the target of a descriptor's link, without what the kernel appends behind a blank
// for a deleted file. False for what is no path: sockets, pipes, anonymous inodes.
bool GetNameOfOpenFile(const std::string& target, std::string& name) {
    const std::size_t slash = target.rfind('/');
    if (slash == std::string::npos) {
        return false;
    }
    name = target.substr(slash + 1, target.find(' ', slash + 1) - (slash + 1));
    return true;
}

bool Contains(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

} // namespace

bool RetrieveImageHash(const char* fileName, std::string& hash) {
    return SDK::FileUtils::GetFileHash(fileName, "SHA256", hash, MAX_FILE_BYTES) != 0;
}

bool RetreiveProcessCmdLine(ProcessInfo& info) {
    std::string cmdline;
    const int result = SDK::ProcessUtils::GetProcessCmdline(info.pid, cmdline, MAX_CMDLINE_BYTES);
    info.cmdline = cmdline;
    return result != 0;
}

bool RetreiveProcessImage(ProcessInfo& info) {
    std::string path;
    if (SDK::ProcessUtils::GetProcessExePath(info.pid, path) != 0) {
        moduleLog.Error("utils_get_exepath_by_pid failed");
        return false;
    }
    info.path = path;
    return true;
}

bool GetProcessNameFromImage(ProcessInfo& info) {
    const std::size_t slash = info.path.rfind('/');
    if (slash == std::string::npos) {
        moduleLog.Error("Process Image path erros %s", info.path);
        return false;
    }
    info.name = info.path.substr(slash + 1);
    return true;
}

bool RetrieveProcessDetailInfo(ProcessInfo& info) {
    if (!info.detailRetrieved) {
        info.detailRetrieved = true;
        if (!info.path.empty() || RetreiveProcessImage(info)) {
            RetrieveImageHash(info.path.c_str(), info.hash);
        }
    }
    return !info.hash.empty();
}

bool IsInterpreterProcess(ProcessInfo& info, const std::vector<std::string>& interpreterNames) {
    if (!GetProcessNameFromImage(info)) {
        return false;
    }
    return std::any_of(interpreterNames.begin(), interpreterNames.end(),
                       [&](const std::string& entry) { return NamesInterpreter(entry, info.name); });
}

bool CheckInterpreterProcess(ProcessInfo& info, const std::vector<std::string>& interpreterNames) {
    if (!IsInterpreterProcess(info, interpreterNames)) {
        return false;
    }
    RetrieveProcessDetailInfo(info);
    info.type = Engine::MATCH_PATH;
    if (info.cmdline.empty()) {
        RetreiveProcessCmdLine(info);
    }
    if (!info.cmdline.empty()) {
        GetInterpreterInfo(info);
    }
    return true;
}

void BecomeScript(ProcessInfo& info, const std::string& path, const std::string& name) {
    SDK::FileUtils::GetFileSha256(path, info.hash, MAX_FILE_BYTES);
    info.path = path;
    info.name = name;
}

bool GetInterpreterInfo(ProcessInfo& info) {
    const std::vector<std::string> arguments = SDK::StrUtils::EasySplit(info.cmdline, " ");
    return GetFileInfoFromCmd(info, arguments) || GetFileInfoFromFd(info, arguments);
}

bool GetFileInfoFromCmd(ProcessInfo& info, const std::vector<std::string>& arguments) {
    std::string cwd;
    if (SDK::ProcessUtils::GetProcessCwd(info.pid, cwd) != 0) {
        moduleLog.Debug("get of proc [%d] cwd link path failed.", info.pid);
        return false;
    }
    const std::string base = cwd + "/";
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const std::string candidate = argument.compare(0, 1, "/") == 0 ? argument : base + argument;
        if (SDK::FileUtils::IsFile(candidate)) {
            moduleLog.Debug("find shell file:%s.", candidate);
            BecomeScript(info, candidate, SDK::PathUtils::GetFileNameFromPath(candidate));
            return true;
        }
    }
    return false;
}

bool GetFileInfoFromFd(ProcessInfo& info, const std::vector<std::string>& arguments) {
    const std::string directory = Poco::format("/proc/%d/fd/", info.pid);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(directory.c_str()), closedir);
    if (!listing) {
        moduleLog.Debug("opendir %s error.", directory);
        return false;
    }
    while (const dirent* entry = readdir(listing.get())) {
        throttle.Check();
        const std::string link = directory + entry->d_name;
        std::string target;
        if (!ReadLink(link, target)) {
            moduleLog.Debug("get of %s link path failed.", link);
            continue;
        }
        std::string name;
        if (GetNameOfOpenFile(target, name) && Contains(arguments, name) && SDK::FileUtils::IsFile(target)) {
            moduleLog.Debug("find interpreter file from fd [%s]", target);
            BecomeScript(info, target, name);
            return true;
        }
    }
    return false;
}

bool ProcessHashCheck(int pid, const char* path, const char* expectedHash, bool byImageLink, struct stat& status) {
    std::string file = path;
    std::uint64_t limit = MAX_FILE_BYTES;
    if (byImageLink) {
        file = Poco::format("/proc/%d/exe", pid);
        limit = MAX_IMAGE_LINK_BYTES;
    } else {
        // A failure shows in the digest.
        static_cast<void>(stat(path, &status));
    }
    std::string hash;
    if (SDK::FileUtils::GetFileSha256(file, hash, limit) != 0) {
        moduleLog.Error("get sha256 of [%s] failed", file);
        return false;
    }
    if (std::memcmp(hash.data(), expectedHash, HASH_CHARACTERS) != 0) {
        moduleLog.Error("%s real:%s expected:%s", path, hash, expectedHash);
        return false;
    }
    return true;
}

} // namespace AntiransonwareProcessUtils
