#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/ForeignRights.h"
#include "ctl/Output.h"
#include "ctl/doctor/Finding.h"
#include "ctl/doctor/History.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

namespace Ctl::Doctor {

namespace {

namespace fs = std::filesystem;

// ---- room

constexpr std::uint64_t MIB = 1U << 20U;

Finding CheckRoom(const Subject& subject, const std::string& folder) {
    Space space;
    if (const int error = subject.machine.measureSpace(subject.root + folder, space); error != 0) {
        return Failed("cannot be examined: " + std::string(std::strerror(error)),
                      "install the agent into this root, or start the daemon once");
    }
    constexpr std::uint64_t FEW_BYTES = 64 * MIB;
    constexpr std::uint64_t SOME_BYTES = 512 * MIB;
    constexpr std::uint64_t FEW_INODES = 100;
    constexpr std::uint64_t SOME_INODES = 5000;
    std::string found =
        std::to_string(space.freeBytes / MIB) + " of " + std::to_string(space.totalBytes / MIB) + " MiB free";
    const bool countsInodes = space.totalInodes > 0;
    if (countsInodes) {
        found += ", " + std::to_string(space.freeInodes) + " inodes";
    }
    if (space.readOnly) {
        return Failed("mounted read-only: nothing can be saved", "mount it for writing");
    }
    if (space.freeBytes < FEW_BYTES || (countsInodes && space.freeInodes < FEW_INODES)) {
        return Failed(found + ": what is learned and reported will soon not be saved", "make room on this file system");
    }
    if (space.freeBytes < SOME_BYTES || (countsInodes && space.freeInodes < SOME_INODES)) {
        return Warning(found, "make room on this file system");
    }
    return Ok(found);
}

// ---- rights

std::string FindStrangerAt(const std::string& path) {
    struct stat file {};
    return stat(path.c_str(), &file) == 0 ? SDK::FindForeignRights(path, file) : "";
}

// What is wrong with who may change the files in a folder; "" when nothing is, or `error` says why they
// cannot be seen.
std::string FindStrangerIn(const std::string& folder, std::error_code& error) {
    std::string stranger;
    for (fs::directory_iterator entry(folder, error), end; stranger.empty() && !error && entry != end;
         entry.increment(error)) {
        stranger = FindStrangerAt(entry->path().string());
    }
    return stranger;
}

// What could not be looked at is neither well nor ill.
Finding CannotSee(const std::string& reason) {
    return Warning("cannot be examined: " + reason, "call corvalentctl doctor as root; else see the disk");
}

Finding CheckRights(const Subject& subject, const std::string& folder) {
    std::error_code error;
    const std::string path = subject.root + folder;
    if (!fs::is_directory(path, error)) {
        return Failed("there is no folder " + path, "install the agent into this root, or start the daemon once");
    }
    std::string stranger = FindStrangerAt(path);
    if (stranger.empty()) {
        stranger = FindStrangerIn(path, error);
    }
    if (!stranger.empty()) {
        return Failed(stranger + ": others can change what the agent runs or believes",
                      "chown root and chmod go-w, and ask who changed it");
    }
    return error ? CannotSee(error.message()) : Ok("nobody else can change anything there");
}

// That folder may be gone after a restart of the machine.
Finding CheckRunRights(const Subject& subject) {
    std::error_code error;
    const bool there = fs::exists(subject.root + "run", error);
    return there || error ? CheckRights(subject, "run") : Ok("the daemon makes it when it starts");
}

// Whoever may rename a folder above the root may put another root in its place.
Finding CheckAbove(const Subject& subject) {
    std::error_code error;
    const fs::path root = fs::canonical(subject.root, error);
    for (fs::path path = root; !error; path = path.parent_path()) {
        struct stat folder {};
        const bool known = stat(path.c_str(), &folder) == 0;
        const bool sticky = (folder.st_mode & S_ISVTX) != 0;
        const std::string stranger = known && !sticky ? SDK::FindForeignRights(path.string(), folder) : "";
        if (!stranger.empty()) {
            return Failed(stranger + ": others can replace the whole installation", "chown root and chmod go-w");
        }
        if (path == path.root_path()) {
            return Ok(root.string());
        }
    }
    return Failed(subject.root + " cannot be examined: " + error.message(), "name the installation with --root DIR");
}

Finding CheckInstalled(const Subject& subject) {
    for (const char* file :
         {"bin/corvalentd", "module/libwhitelist_module.so", "module/libprocess_collect_module.so",
          "module/libfilenotify_module.so", "module/libisolate_module.so", "module/libdata_comm_module.so"}) {
        if (!SDK::FileUtils::IsFile(subject.root + file)) {
            return Failed(std::string(file) + " is missing", "install the agent again");
        }
    }
    return Ok("the daemon and its five modules are there");
}

// ---- state files

// What is wrong with the text of a state file; "" when nothing is.
using Reader = std::string (*)(const std::string& text);

std::string ReadObject(const std::string& text) {
    Json::Value document;
    return SDK::JsonUtils::ParseJsonStr(text, document) == 0 && document.isObject() ? "" : "not a JSON object";
}

// An empty one is made by the module's first start.
std::string ReadList(const std::string& text) {
    if (text.empty()) {
        return "";
    }
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, document) != 0) {
        return "not JSON";
    }
    return SDK::JsonUtils::IsArrayValue(document, "process_info") ? "" : "without the list \"process_info\"";
}

bool IsNumber(const std::string& text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

// [Driver] LearnTime=MINUTES LearnMod=0..3
std::string ReadLearnState(const std::string& text) {
    std::string time;
    std::string mode;
    bool inSection = false;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = SDK::StrUtils::Trim(text.substr(begin, end - begin));
        begin = end + 1;
        if (line.starts_with("[")) {
            inSection = line == "[Driver]";
            continue;
        }
        const std::size_t equals = line.find('=');
        if (!inSection || equals == std::string::npos) {
            continue;
        }
        const std::string key = SDK::StrUtils::Trim(line.substr(0, equals));
        const std::string value = SDK::StrUtils::Trim(line.substr(equals + 1));
        time = key == "LearnTime" ? value : time;
        mode = key == "LearnMod" ? value : mode;
    }
    // What is not there yet begins with its default.
    if (!time.empty() && !IsNumber(time)) {
        return "its LearnTime is no number";
    }
    return mode.empty() || (mode.size() == 1 && mode >= "0" && mode <= "3") ? "" : "its LearnMod is none of 0 to 3";
}

struct StateFile {
    const char* name;
    std::uint64_t maxBytes; // as the agent reads it
    Reader read;
    const char* remedy; // when it is damaged or too large
};

constexpr const char* LEARN_AGAIN = "restore it from a backup, or learn again (corvalentctl learn reset)";
constexpr const char* SEND_LIST_AGAIN = "have the server send the list again";
constexpr std::uint64_t LIST_BYTES = 10 * MIB;

constexpr std::array<StateFile, 8> STATE_FILES = {{
    {"conf/agent.json", 1 * MIB, ReadObject, "correct it; without it the defaults hold"},
    {"conf/policy.json", 64 * MIB, ReadObject, "apply the policy again (corvalentctl policy apply FILE)"},
    {"conf/desired.json", 4096, ReadObject, "wish again what is wished (corvalentctl detect start)"},
    {"conf/modwhitelist.ini", LIST_BYTES, ReadLearnState, LEARN_AGAIN},
    {"conf/whitelist.data", LIST_BYTES, ReadList, LEARN_AGAIN},
    {"conf/arsserverproc.data", LIST_BYTES, ReadList, SEND_LIST_AGAIN},
    {"conf/osPresetProcess.dat", LIST_BYTES, ReadList, SEND_LIST_AGAIN},
    {"conf/servicePresetProcess.dat", LIST_BYTES, ReadList, SEND_LIST_AGAIN},
}};

Finding CheckStateFile(const Subject& subject, const StateFile& file) {
    const std::string path = subject.root + file.name;
    std::string text;
    const int error = SDK::FileUtils::ReadFile(path, text, file.maxBytes);
    if (error == ENOENT) {
        return Ok("none");
    }
    if (error == EFBIG) {
        return Failed("larger than " + std::to_string(file.maxBytes) + " bytes: it is not loaded", file.remedy);
    }
    if (error == EACCES) {
        return CannotSee(std::strerror(error));
    }
    if (error != 0) {
        return Failed("cannot be read: " + std::string(std::strerror(error)), file.remedy);
    }
    if (const std::string fault = file.read(text); !fault.empty()) {
        return Failed(fault + ": it is not loaded", file.remedy);
    }
    const std::string found = std::to_string(text.size()) + " bytes";
    constexpr std::uint64_t NEARLY_ALL_PERCENT = 80;
    if (text.size() > file.maxBytes / 100 * NEARLY_ALL_PERCENT) {
        return Warning(found + " of at most " + std::to_string(file.maxBytes) + ": beyond that it is not loaded",
                       "move entries to a preset list (corvalentctl preset build), and learn again");
    }
    return Ok(found);
}

// A clock that was set back makes reports older than what they follow.
Finding CheckAges(const Subject& subject) {
    constexpr std::int64_t TOLERANCE_SECONDS = 60;
    const std::int64_t now = subject.machine.readClock().now;
    for (const StateFile& file : STATE_FILES) {
        struct stat found {};
        if (stat((subject.root + file.name).c_str(), &found) == 0 && found.st_mtim.tv_sec > now + TOLERANCE_SECONDS) {
            return Failed(std::string(file.name) + " is from the future (" + FormatTime(found.st_mtim.tv_sec) +
                              "): the clock was set back",
                          "set the clock, then restart the daemon");
        }
    }
    return Ok("no state file is from the future");
}

// ---- the history

Finding CheckReports(const Subject& subject) {
    return CheckHistory(subject.root + "data/reports.db", HISTORY_DEADLINE);
}

Finding CheckSetAside(const Subject& subject) {
    std::size_t count = 0;
    std::string last;
    std::error_code error;
    for (fs::directory_iterator entry(subject.root + "data", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.starts_with("reports.db.corrupt-") && !name.ends_with("-wal") && !name.ends_with("-shm")) {
            ++count;
            last = std::max(last, name);
        }
    }
    return count == 0 ? Ok("none")
                      : Warning(std::to_string(count) + " damaged histories were set aside, the last is data/" + last,
                                "find the cause (disk, power), rescue what sqlite3 .recover gives, and delete them");
}

// What a start could not load and has kept.
Finding CheckUnloaded(const Subject& subject) {
    std::string names;
    std::error_code error;
    for (fs::directory_iterator entry(subject.root + "conf", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.ends_with(".unloaded")) {
            names += (names.empty() ? "conf/" : ", conf/") + name;
        }
    }
    return names.empty() ? Ok("none")
                         : Warning("a start could not load what is kept as " + names,
                                   "find the cause (disk, power, size), rescue what is needed, and delete it");
}

} // namespace

Checks StateChecks() {
    Checks checks = {{"root", CheckAbove}, {"installed", CheckInstalled}};
    for (const char* folder : {"conf", "data", "log"}) {
        checks.push_back({std::string("room in ") + folder + "/",
                          [folder](const Subject& subject) { return CheckRoom(subject, folder); }});
    }
    for (const char* folder : {"bin", "lib", "module", "conf", "data", "log"}) {
        checks.push_back({std::string("rights in ") + folder + "/",
                          [folder](const Subject& subject) { return CheckRights(subject, folder); }});
    }
    checks.push_back({"rights in run/", CheckRunRights});
    for (const StateFile& file : STATE_FILES) {
        checks.push_back({file.name, [&file](const Subject& subject) { return CheckStateFile(subject, file); }});
    }
    checks.push_back({"unloaded state", CheckUnloaded});
    checks.push_back({"ages of state", CheckAges});
    checks.push_back({"data/reports.db", CheckReports});
    checks.push_back({"damaged histories", CheckSetAside});
    return checks;
}

} // namespace Ctl::Doctor
