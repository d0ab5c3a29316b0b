#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "sdk/RwLock.h"

namespace Engine {

// What the module is doing; kept in its state file as a number.
enum WorkMode : std::int64_t {
    MOD_NONE = 0,    // stopped
    MOD_LEARN = 1,   // every process seen becomes trusted
    MOD_LEARNED = 2, // learning is complete, detection waits for the server's command
    MOD_DETECT = 3,  // unknown processes are reported
};

// The module's working mode, its learning clock, the settings of its policy, and the rules that say
// which files the file audit cares for.
//
//     (start) ──► LEARN ──learned time reached──► LEARNED ──start-detect──► DETECT
//                   │                                                        ▲
//                   └──learned time reached, auto_detect ────────────────────┘
//
//     reset-learning leads from any mode to LEARN, OnStop from any mode to NONE; a policy sets the
//     mode anew: LEARN while the learned time is short of the period, else the one in the file.
//
// Learned time is counted in whole minutes while checks run in LEARN, and survives restarts in
// conf/modwhitelist.ini. Time while the agent is stopped does not count.
//
// One instance. Everything may be read from any thread. The operations that change the mode exclude
// one another, so that a check, a command and a policy never interleave; the mode itself is written
// by compare-and-swap.
class ConfigManager {
public:
    static ConfigManager* Instance();

    // ---- Start and persisted state -----------------------------------------------------------------

    // Finds the state file, creates it empty if there is none, and reads the learned time. False when
    // the environment does not fit, there is no installation path, or the file can be neither found nor
    // made.
    bool Init();
    bool IsRunningEnvCompatible() const;

    // Each returns whether the file could be read or written.
    bool GetLearnedTimeFromFile();
    bool RestoreLearnTimeToFile() const;
    void GetLearnedModFromFile();
    bool RestoreLearnModToFile() const;

    // ---- Learning and detection --------------------------------------------------------------------

    // Lets the learning clock advance; nothing outside LEARN.
    void OnStarted();
    // Stamps the start of the interval that the next check counts, then checks.
    bool OnStartedLearnModel();
    // Adds the whole minutes since the last check to the learned time, persists time and mode, and
    // ends learning when the period is reached. A clock set back takes minutes off. False only when
    // the start has not been stamped.
    bool CheckLearnedStatus();
    // Ends the trust engine's learning, sets the next mode, and starts the engine in it.
    void StopLearningModel();
    // The server's start-detect command: from LEARNED to DETECT, in memory only; elsewhere an error is
    // logged and nothing changes.
    void StartDetectMod();
    // The server's reset-learning command: LEARN again, with the time learned so far still in memory.
    void ResetLearnModule();
    // The orderly end in directory mode: a last check, then NONE.
    void OnStop();
    bool OnStopLeaenModel();

    // ---- Policy --------------------------------------------------------------------------------------

    // Takes the settings of a feature policy document and settles the mode. False when the document is
    // not usable; settings read before the fault was met stay as read, and the mode stays as it was.
    bool ParsePolicy(const char* text);
    bool ParsePolicyContent(const char* text);

    // ---- File-scope rules ----------------------------------------------------------------------------

    // The most entries that "dirs" and "exts" may leave.
    static constexpr std::size_t MAX_RULES = 100;
    static constexpr std::size_t MAX_DIR_BYTES = 4095;
    static constexpr std::size_t MAX_EXT_BYTES = 19;
    // How many levels, the configured directory included, and to how many directories the expansion goes.
    static constexpr int MAX_EXPANSION_DEPTH = 10;
    static constexpr unsigned long MAX_EXPANDED_DIRS = 8192;

    // Read "dirs" / "exts" of the policy's content. Unusable entries are skipped with a log record;
    // false when the member is not an array or an element not a string.
    bool ParseDirPolicy(const Json::Value& content);
    bool ParseExtPolicy(const Json::Value& content);
    bool CheckDirPolicy(const std::string& path) const;
    bool CheckExtPolicy(const std::string& extension) const;

    // Rebuilds the set of expanded directories from the configured ones. True when the set is usable,
    // which a partial one is.
    bool OptimizeFilePolicy();

    // Add the path(s) and every directory below to `expanded`; links are followed, each directory is
    // visited once. False as soon as a directory cannot be listed or a limit is met; what was found so
    // far stays in the set.
    bool ExpendSubPath(const std::vector<std::string>& paths, std::set<std::string>& expanded, int depth,
                       unsigned long maximum) const;
    bool ExpendPath(const std::string& path, std::set<std::string>& expanded, int depth, unsigned long maximum) const;

    // ---- What the others read ------------------------------------------------------------------------

    std::int64_t GetMod() const { return mMod.load(); }
    std::int32_t GetLearnPeriod() const { return mLearnPeriod.load(); } // minutes
    std::int32_t GetLearnedTime() const { return mLearnedTime.load(); } // minutes
    std::int32_t GetActionBlock() const { return mActionBlock.load(); } // 0 or 1
    bool GetMountMod() const { return mMountMod.load(); }
    bool GetDirMod() const { return mDirMod.load(); }
    std::int32_t GetScanPeriodSeconds() const { return mScanPeriodSeconds.load(); }
    bool GetAutoDetect() const { return mAutoDetect.load(); }
    std::vector<std::string> GetDirs() const;
    std::set<std::string> GetExts() const;
    std::set<std::string> GetExpandedDirs() const;

private:
    ConfigManager() = default;

    // Compare-and-swap of the mode just read: a concurrent writer wins over a stale one.
    void SetMod(std::int64_t mod);
    void SettleMod();

    mutable SDK::RwLock mRulesLock;

    std::atomic<std::int32_t> mLearnPeriod{0}; // minutes
    std::vector<std::string> mDirs GUARDED_BY(mRulesLock);
    std::set<std::string> mExts GUARDED_BY(mRulesLock);
    std::set<std::string> mExpandedDirs GUARDED_BY(mRulesLock);
    std::atomic<std::int32_t> mActionBlock{0};
    std::atomic<bool> mMountMod{false};
    std::atomic<bool> mDirMod{false};
    std::atomic<std::int32_t> mScanPeriodSeconds{0};
    std::atomic<bool> mAutoDetect{false};
    std::atomic<std::time_t> mStartTime{0};    // start of the interval not yet counted; 0: not started
    std::atomic<std::int32_t> mLearnedTime{0}; // minutes
    std::atomic<std::int64_t> mMod{MOD_LEARN};
    std::string mConfigFile; // written by Init only

    // Held by every operation that changes the mode, through all of it; recursive because they call
    // one another.
    std::recursive_mutex mTransition;
};

} // namespace Engine
