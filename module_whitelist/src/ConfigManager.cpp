#include "ConfigManager.h"

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <sys/stat.h>

#include "ProcessManager.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"
#include "sdk/TimeUtils.h"
#include "utils/Constants.h"
#include "utils/PolicyContent.h"
#include "utils/StateFiles.h"
#include "utils/UnloadedFile.h"
#include "utils/config.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

constexpr const char* SECTION = "Driver";
constexpr const char* KEY_LEARN_TIME = "LearnTime";
constexpr const char* KEY_LEARN_MOD = "LearnMod";

constexpr int MINUTES_PER_DAY = 1440;
constexpr int MIN_LEARNING_DAYS = 1;
constexpr int MAX_LEARNING_DAYS = 30;
constexpr int DEFAULT_LEARNING_DAYS = 7;
constexpr int DEFAULT_SCAN_PERIOD_SECONDS = 3600;
constexpr std::int64_t SECONDS_PER_MINUTE = 60;

bool IsDirectory(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Control characters, every byte that is not ASCII (the comparison is of signed bytes), and what
// cannot be part of an extension.
bool IsForbiddenInExtension(char character) {
    return static_cast<signed char>(character) <= 0x1F || std::strchr("/\"*|<>.", character) != nullptr;
}

// The directory that `path` leads to, without symbolic links; empty when it leads to none.
std::string ResolveDirectory(const std::string& path) {
    std::array<char, PATH_MAX> resolved{};
    struct stat status {};
    if (realpath(path.c_str(), resolved.data()) == nullptr || lstat(resolved.data(), &status) != 0 ||
        !S_ISDIR(status.st_mode)) {
        return "";
    }
    return resolved.data();
}

} // namespace

ConfigManager* ConfigManager::Instance() {
    static ConfigManager mObj;
    return &mObj;
}

// ---- Start and persisted state ---------------------------------------------------------------------

bool ConfigManager::IsRunningEnvCompatible() const {
    return true;
}

bool ConfigManager::Init() {
    if (!IsRunningEnvCompatible()) {
        moduleLog.Error("Not Support");
        return false;
    }
    const std::string root = SDK::PathUtils::GetInstallationPath();
    if (root.empty()) {
        moduleLog.Error("get app root path error");
        return false;
    }
    mConfigFile = root + CONFIG_FILE;
    if (!SDK::FileUtils::IsFile(mConfigFile) && SDK::FileUtils::WriteFile(mConfigFile, "", false) != 0) {
        return false;
    }
    std::int64_t size = 0;
    if (!GetLearnedTimeFromFile() && SDK::FileUtils::GetFileSize(mConfigFile, size) == 0 && size > 0) {
        moduleLog.Error("[%s] is damaged, it holds no LearnTime: the time learned begins with 0; %s", mConfigFile,
                        utils::unloaded_file::Keep(mConfigFile));
    }
    return true;
}

bool ConfigManager::GetLearnedTimeFromFile() {
    int minutes = 0;
    if (!utils::config::get_config_int(mConfigFile.c_str(), SECTION, KEY_LEARN_TIME, minutes)) {
        return false;
    }
    mLearnedTime.store(minutes);
    return true;
}

bool ConfigManager::RestoreLearnTimeToFile() const {
    return utils::config::set_config_int(mConfigFile.c_str(), SECTION, KEY_LEARN_TIME, mLearnedTime.load());
}

void ConfigManager::GetLearnedModFromFile() {
    int mod = MOD_NONE;
    utils::config::get_config_int(mConfigFile.c_str(), SECTION, KEY_LEARN_MOD, mod);
    SetMod(mod);
}

bool ConfigManager::RestoreLearnModToFile() const {
    return utils::config::set_config_int(mConfigFile.c_str(), SECTION, KEY_LEARN_MOD, static_cast<int>(mMod.load()));
}

// ---- Learning and detection ------------------------------------------------------------------------

void ConfigManager::SetMod(std::int64_t mod) {
    std::int64_t current = mMod.load();
    mMod.compare_exchange_strong(current, mod);
}

void ConfigManager::OnStarted() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    if (mMod.load() == MOD_LEARN) {
        OnStartedLearnModel();
    }
}

bool ConfigManager::OnStartedLearnModel() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    if (mStartTime.load() == 0) {
        mStartTime.store(SDK::TimeUtils::GetCurrentTimestampS());
    }
    return CheckLearnedStatus();
}

bool ConfigManager::CheckLearnedStatus() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    if (mStartTime.load() == 0) {
        moduleLog.Error("mStartTime is not correct, check in next time");
        return false;
    }
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    const std::int64_t delta = now - mStartTime.load();
    mStartTime.store(now);
    mLearnedTime.store(static_cast<std::int32_t>(mLearnedTime.load() + delta / SECONDS_PER_MINUTE));
    RestoreLearnTimeToFile();
    RestoreLearnModToFile();
    if (mLearnedTime.load() < mLearnPeriod.load()) {
        return true;
    }
    moduleLog.Information("Learn complete!");
    StopLearningModel();
    return true;
}

void ConfigManager::StopLearningModel() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    ProcessManager::Instance()->Onstop();
    if (mAutoDetect.load()) {
        moduleLog.Information("Learn complete, auto switch to detect mod");
        SetMod(MOD_DETECT);
    } else {
        SetMod(MOD_LEARNED);
    }
    RestoreLearnModToFile();
    ProcessManager::Instance()->Onstart();
}

void ConfigManager::StartDetectMod() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    std::int64_t expected = MOD_LEARNED;
    if (!mMod.compare_exchange_strong(expected, MOD_DETECT)) {
        moduleLog.Error("Can not switch mod to detect,maybe not learn compelete, current mod is [%ld]",
                        static_cast<long>(expected));
    }
}

void ConfigManager::ResetLearnModule() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    if (!utils::config::set_config_int(mConfigFile.c_str(), SECTION, KEY_LEARN_TIME, 0)) {
        moduleLog.Error("ResetLearnModule Set file error");
        SDK::FileUtils::RemoveFile(mConfigFile);
        return;
    }
    SetMod(MOD_LEARN);
    RestoreLearnModToFile();
    ProcessManager::Instance()->Onstop();
    ProcessManager::Instance()->Onstart();
    OnStarted();
}

void ConfigManager::OnStop() {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    if (mMod.load() == MOD_LEARN) {
        OnStopLeaenModel();
    }
    SetMod(MOD_NONE);
    RestoreLearnModToFile();
}

bool ConfigManager::OnStopLeaenModel() {
    return CheckLearnedStatus();
}

// ---- Policy ----------------------------------------------------------------------------------------

bool ConfigManager::ParsePolicy(const char* text) {
    const std::lock_guard<std::recursive_mutex> transition(mTransition);
    mMountMod.store(false);
    mDirMod.store(false);
    mActionBlock.store(0);
    mAutoDetect.store(false);
    if (!ParsePolicyContent(text)) {
        return false;
    }
    SettleMod();
    return true;
}

void ConfigManager::SettleMod() {
    if (mLearnedTime.load() >= mLearnPeriod.load()) {
        GetLearnedModFromFile();
    } else {
        mMod.store(MOD_LEARN);
    }
}

bool ConfigManager::ParsePolicyContent(const char* text) {
    const std::string policyText = text == nullptr ? "" : text;
    Json::Value policy;
    if (SDK::JsonUtils::ParseJsonStr(policyText, policy) != 0) {
        moduleLog.Error("Parse Policy Failed. [%s]", policyText);
        return false;
    }
    Json::Value content;
    if (!utils::TakePolicyContent(policy, content)) {
        moduleLog.Error("no content in policy");
        return false;
    }
    int days = SDK::JsonUtils::GetIntValue(content, "learning_days", 0);
    if (days < MIN_LEARNING_DAYS || days > MAX_LEARNING_DAYS) {
        moduleLog.Error("set learning days to default 7 days");
        days = DEFAULT_LEARNING_DAYS;
    }
    mLearnPeriod.store(days * MINUTES_PER_DAY);
    mActionBlock.store(SDK::JsonUtils::GetBoolValue(content, "action_block", false) ? 1 : 0);
    mDirMod.store(SDK::JsonUtils::GetBoolValue(content, "dir_mod", false));
    if (!mDirMod.load()) {
        mScanPeriodSeconds.store(
            SDK::JsonUtils::GetIntValue(content, "scan_period_seconds", DEFAULT_SCAN_PERIOD_SECONDS));
        mAutoDetect.store(SDK::JsonUtils::GetBoolValue(content, "auto_detect", true));
        return true;
    }
    if (SDK::JsonUtils::GetBoolValue(content, "mount_mod", false)) {
        mMountMod.store(true);
    }
    const bool parsed = ParseDirPolicy(content) && ParseExtPolicy(content);
    const std::size_t dirs = GetDirs().size();
    const std::size_t exts = GetExts().size();
    moduleLog.Debug("dirs size [%z] exts size [%z]", dirs, exts);
    if (!parsed || dirs > MAX_RULES || exts > MAX_RULES) {
        moduleLog.Error("POLICY error too many dir or ext config");
        return false;
    }
    OptimizeFilePolicy();
    return true;
}

// ---- File-scope rules ------------------------------------------------------------------------------

bool ConfigManager::ParseDirPolicy(const Json::Value& content) {
    const SDK::WriteGuard guard(mRulesLock);
    mDirs.clear();
    if (!SDK::JsonUtils::IsArrayValue(content, "dirs")) {
        return false;
    }
    for (const Json::Value& dir : content["dirs"]) {
        if (!dir.isString()) {
            return false;
        }
        if (CheckDirPolicy(dir.asString())) {
            mDirs.push_back(dir.asString());
        }
    }
    return true;
}

bool ConfigManager::CheckDirPolicy(const std::string& path) const {
    if (path.empty() || path.size() > MAX_DIR_BYTES) {
        moduleLog.Error("Policy Dir error too long %s", path);
        return false;
    }
    if (!IsDirectory(path)) {
        moduleLog.Error("Policy Dir error %s", path);
        return false;
    }
    return true;
}

bool ConfigManager::ParseExtPolicy(const Json::Value& content) {
    const SDK::WriteGuard guard(mRulesLock);
    mExts.clear();
    if (!SDK::JsonUtils::IsArrayValue(content, "exts")) {
        return false;
    }
    for (const Json::Value& extension : content["exts"]) {
        if (!extension.isString()) {
            return false;
        }
        if (CheckExtPolicy(extension.asString())) {
            mExts.insert(extension.asString());
        }
    }
    return true;
}

bool ConfigManager::CheckExtPolicy(const std::string& extension) const {
    if (extension.empty() || extension.size() > MAX_EXT_BYTES) {
        moduleLog.Error("Policy ext error size %s", extension);
        return false;
    }
    for (const char character : extension) {
        if (IsForbiddenInExtension(character)) {
            moduleLog.Error("Policy ext error %s", extension);
            return false;
        }
    }
    return true;
}

bool ConfigManager::OptimizeFilePolicy() {
    const std::vector<std::string> dirs = GetDirs();
    std::set<std::string> expanded;
    const bool complete = ExpendSubPath(dirs, expanded, MAX_EXPANSION_DEPTH, MAX_EXPANDED_DIRS);
    const bool usable = complete || !expanded.empty();
    {
        const SDK::WriteGuard guard(mRulesLock);
        mExpandedDirs.swap(expanded);
    }
    if (!complete) {
        moduleLog.Error("ExpendSubPath ERROR");
    }
    return usable;
}

bool ConfigManager::ExpendSubPath(const std::vector<std::string>& paths, std::set<std::string>& expanded, int depth,
                                  unsigned long maximum) const {
    for (const std::string& path : paths) {
        if (!ExpendPath(path, expanded, depth, maximum)) {
            return false;
        }
    }
    return true;
}

bool ConfigManager::ExpendPath(const std::string& path, std::set<std::string>& expanded, int depth,
                               unsigned long maximum) const {
    if (depth <= 0 || expanded.size() > maximum) {
        moduleLog.Error("Dir too deep || maxSize");
        return false;
    }
    // A directory that is there already was looked into before: this ends cycles of links.
    if (!expanded.insert(path).second) {
        return true;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(path.c_str()), closedir);
    if (!listing) {
        moduleLog.Trace("Can not open dir %s\r\n", path);
        return false;
    }
    const std::string base = path + "/";
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const std::string directory = ResolveDirectory(base + name);
        if (!directory.empty() && !ExpendPath(directory, expanded, depth - 1, maximum)) {
            return false;
        }
    }
    return true;
}

// ---- What the others read --------------------------------------------------------------------------

std::vector<std::string> ConfigManager::GetDirs() const {
    const SDK::ReadGuard guard(mRulesLock);
    return mDirs;
}

std::set<std::string> ConfigManager::GetExts() const {
    const SDK::ReadGuard guard(mRulesLock);
    return mExts;
}

std::set<std::string> ConfigManager::GetExpandedDirs() const {
    const SDK::ReadGuard guard(mRulesLock);
    return mExpandedDirs;
}

} // namespace Engine
