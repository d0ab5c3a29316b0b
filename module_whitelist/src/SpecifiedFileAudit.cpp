#include "SpecifiedFileAudit.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "JudgedImage.h"
#include "ProcessManager.h"
#include "framework/HandledEvent.h"
#include "sdk/ModuleLog.h"
#include "sdk/ProcStat.h"
#include "sdk/TimeUtils.h"
#include "utils/Constants.h"
#include "utils/ProcessUtils.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

constexpr std::size_t SCRATCH_BYTES = 4096;

constexpr std::uint64_t FIRST_PROCESS_LIMIT = 10000;
constexpr std::uint64_t PROCESS_LIMIT_STEP = 10;

constexpr std::size_t MAX_INODES = 99999;
constexpr std::time_t MAX_INODE_AGE_S = 30;
// Only a pass that freed more than this goes on to the entries that are rarely seen.
constexpr std::size_t ENOUGH_REMOVED = 33333;
constexpr std::uint64_t RARELY_SEEN_HITS = 5;
constexpr std::uint64_t SELDOM_SEEN_HITS = 7;

constexpr std::time_t CHECK_INTERVAL_S = 2;

// In ticks of clock(3), which are microseconds.
constexpr std::clock_t RATE_WINDOW_TICKS = 999999;
constexpr std::int32_t MAX_MESSAGES_PER_WINDOW = 10000;
constexpr std::clock_t SAMPLE_INTERVAL_TICKS = 1999;

// The inode of a file that may be audited: one that is there and no directory.
std::optional<std::uint64_t> ReadInode(const std::string& path) {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) {
        moduleLog.Error("Get File [%s] stat Failed , error :%d", path, errno);
        return std::nullopt;
    }
    if (S_ISDIR(file.st_mode) || file.st_ino == 0) {
        return std::nullopt;
    }
    return file.st_ino;
}

// 0 when there is no such process (any more).
std::uint64_t ReadBegin(int pid) {
    SDK::ProcStat stat;
    return SDK::ProcStat::Read(pid, stat) == 0 ? stat.startTime : 0;
}

bool WasCheckedRecently(const ProcessInfo& info, std::time_t now) {
    return info.auditHit && now - info.auditHitTime < CHECK_INTERVAL_S;
}

} // namespace

SpecifiedFileAudit& SpecifiedFileAudit::Instance() {
    static SpecifiedFileAudit mObj;
    return mObj;
}

SpecifiedFileAudit::SpecifiedFileAudit() : mProcessLimit(FIRST_PROCESS_LIMIT) {}

SpecifiedFileAudit::~SpecifiedFileAudit() = default;

bool SpecifiedFileAudit::Init(void* owner) {
    mScratch.reset(new (std::nothrow) char[SCRATCH_BYTES]());
    if (!mScratch || owner == nullptr) {
        return false;
    }
    mOwner = owner;
    return true;
}

void SpecifiedFileAudit::Deinit() {
    mScratch.reset();
}

// ---- Scope -----------------------------------------------------------------------------------------

bool SpecifiedFileAudit::IsCaredDir(const std::string& path) const {
    if (!ConfigManager::Instance()->GetMountMod()) {
        return true;
    }
    const std::vector<std::string> dirs = ConfigManager::Instance()->GetDirs();
    return dirs.empty() ||
           std::any_of(dirs.begin(), dirs.end(), [&](const std::string& dir) { return path.starts_with(dir); });
}

bool SpecifiedFileAudit::IsCaredExt(const std::string& path) const {
    const std::set<std::string> extensions = ConfigManager::Instance()->GetExts();
    if (extensions.empty()) {
        return true;
    }
    const std::size_t dot = path.rfind('.');
    return dot != std::string::npos && extensions.count(path.substr(dot + 1)) != 0;
}

bool SpecifiedFileAudit::IsCaredFile(const std::string& path) const {
    return IsCaredDir(path) && IsCaredExt(path);
}

// ---- Inode cache -----------------------------------------------------------------------------------

FileInodeNoCache* SpecifiedFileAudit::GetInodeCacheEntry(std::uint64_t inode, const std::string& path) {
    const auto [place, isNew] = mInodes.try_emplace(inode);
    FileInodeNoCache& entry = place->second;
    if (isNew) {
        if (mScratch) {
            std::memset(mScratch.get(), 0, SCRATCH_BYTES);
        }
        if (path.empty()) {
            moduleLog.Error("File Audit Get file path error inodeno[%?d]", inode);
            mInodes.erase(place);
            return nullptr;
        }
        entry.cared = IsCaredFile(path);
        if (entry.cared) {
            entry.path = path;
        }
    }
    entry.lastAccess = SDK::TimeUtils::GetCurrentTimestampS();
    mOldestAccess = std::min(mOldestAccess, entry.lastAccess);
    ++entry.hits;
    return &entry;
}

std::size_t SpecifiedFileAudit::DelInodeCountLess(std::uint64_t hits) {
    return std::erase_if(mInodes, [hits](const auto& item) { return item.second.hits < hits; });
}

// A scan that can find nothing is spared: in a flood of files the cache is full of fresh entries at each event.
void SpecifiedFileAudit::CheckAndDelInodeCache() {
    const std::time_t now = SDK::TimeUtils::GetCurrentTimestampS();
    if (mInodes.size() <= MAX_INODES || now - mOldestAccess <= MAX_INODE_AGE_S) {
        return;
    }
    std::size_t removed =
        std::erase_if(mInodes, [now](const auto& item) { return now - item.second.lastAccess > MAX_INODE_AGE_S; });
    // Where most entries are fresh the cache holds what is in use, and counting would throw that out.
    for (const std::uint64_t hits : {RARELY_SEEN_HITS, SELDOM_SEEN_HITS}) {
        if (removed > ENOUGH_REMOVED) {
            removed += DelInodeCountLess(hits);
        }
    }
    mOldestAccess = now;
    for (const auto& [inode, entry] : mInodes) {
        mOldestAccess = std::min(mOldestAccess, entry.lastAccess);
    }
}

// ---- Processes -------------------------------------------------------------------------------------

void SpecifiedFileAudit::KeepSizeProcessIDMap() {
    if (mProcessLimit > mProcesses.size()) {
        return;
    }
    std::erase_if(mProcesses, [](const auto& item) {
        const ProcessInfo* known = ProcessManager::Instance()->GetProcessInfoFromID(item.second.pid);
        return known == nullptr || known->exited;
    });
    std::erase_if(mBegins, [this](const auto& item) { return mProcesses.count(item.first) == 0; });
    // With more records than the limit the difference wraps around, and the limit stays.
    if (mProcessLimit - mProcesses.size() < PROCESS_LIMIT_STEP) {
        mProcessLimit += PROCESS_LIMIT_STEP;
    }
}

ProcessInfo* SpecifiedFileAudit::GetProcessInfo(int pid) {
    KeepSizeProcessIDMap();
    const auto own = mProcesses.find(pid);
    if (own != mProcesses.end()) {
        return &own->second;
    }
    const auto image = HoldJudgedImage(pid);
    const ProcessInfo* known = ProcessManager::Instance()->GetProcessInfoFromIDDefinite(pid);
    if (known == nullptr) {
        moduleLog.Error("Can't Get Process info, by pass all opertaion");
        return nullptr;
    }
    ProcessInfo info = *known;
    mBegins[pid] = {ReadBegin(pid), SDK::TimeUtils::GetCurrentTimestampS()};
    AntiransonwareProcessUtils::RetrieveProcessDetailInfo(info);
    return &mProcesses.emplace(pid, std::move(info)).first->second;
}

// The record of a process whose accesses are audited. Null for one that is trusted, or not known.
ProcessInfo* SpecifiedFileAudit::FindAudited(int pid, std::time_t now) {
    ProcessInfo* info = GetProcessInfo(pid);
    if (info != nullptr && info->trusted && now - mBegins[pid].seen >= CHECK_INTERVAL_S) {
        info = RenewIfReused(info);
    }
    return info == nullptr || info->trusted ? nullptr : info;
}

// The record to go by when the one that is given is of a process that has ended since and whose number
// another one bears now: of that one, anew. Null when there is nothing to be known of it.
ProcessInfo* SpecifiedFileAudit::RenewIfReused(ProcessInfo* info) {
    const int pid = info->pid;
    const std::uint64_t begin = ReadBegin(pid);
    Begin& known = mBegins[pid];
    known.seen = SDK::TimeUtils::GetCurrentTimestampS();
    if (begin == 0 || known.ticks == begin) {
        return info;
    }
    mProcesses.erase(pid);
    // The engine may not have been told of it yet.
    ProcessManager::Instance()->OnProcessCreate(pid);
    ProcessInfo* own = GetProcessInfo(pid);
    if (own != nullptr) {
        MatchByContent(*own);
    }
    return own;
}

void SpecifiedFileAudit::MatchByContent(ProcessInfo& info) {
    if (!info.path.empty()) {
        info.type = MATCH_HASH;
    }
}

bool SpecifiedFileAudit::IsOwnProcess(int pid) {
    static const int own = getpid();
    return pid == own;
}

// ---- Rates -----------------------------------------------------------------------------------------

bool SpecifiedFileAudit::IsTooManyMsg() {
    const std::clock_t now = std::clock();
    if (now - mWindowStart > RATE_WINDOW_TICKS) {
        mWindowStart = now;
        mMessageCount = 1;
        return false;
    }
    return ++mMessageCount > MAX_MESSAGES_PER_WINDOW;
}

bool SpecifiedFileAudit::SamplingNotifiesByInterval() {
    const std::clock_t now = std::clock();
    if (mLastSample != 0 && now - mLastSample <= SAMPLE_INTERVAL_TICKS) {
        return true;
    }
    mLastSample = now;
    return false;
}

// ---- Events ----------------------------------------------------------------------------------------

void SpecifiedFileAudit::OnFileRecordMsg(std::int32_t pid, const std::string& path) {
    if (ConfigManager::Instance()->GetMod() == MOD_LEARNED || IsOwnProcess(pid)) {
        return;
    }
    const std::time_t now = SDK::TimeUtils::GetCurrentTimestampS();
    ProcessInfo* info = FindAudited(pid, now);
    if (info == nullptr) {
        return;
    }
    MatchByContent(*info);
    ++info->fileEventCount;
    if (WasCheckedRecently(*info, now)) {
        return;
    }
    const std::optional<std::uint64_t> inode = ReadInode(path);
    if (!inode) {
        return;
    }
    CheckAndDelInodeCache();
    const FileInodeNoCache* file = GetInodeCacheEntry(*inode, path);
    if (file == nullptr || !file->cared) {
        return;
    }
    // Whoever is isolated from here on is the process that is looked at.
    const Framework::HandledEvent held(0, pid);
    info = RenewIfReused(info);
    if (info == nullptr || info->trusted) {
        return;
    }
    info->auditHit = true;
    info->auditHitTime = now;
    moduleLog.Trace("Get FaNotify proc [%d] inodeno[%?d] %s --> file %s", pid, *inode, info->path, file->path);
    FileLearnAndDetect(info);
}

void SpecifiedFileAudit::FileLearnAndDetect(ProcessInfo* info) const {
    ProcessManager& engine = *ProcessManager::Instance();
    const std::int64_t mod = ConfigManager::Instance()->GetMod();
    if (mod == MOD_LEARN) {
        engine.UpdateLocalProcessInfo(*info);
        return;
    }
    if (engine.IsTrustProcess(*info) || mod != MOD_DETECT) {
        moduleLog.Debug("Credible process, let it go");
        return;
    }
    if (!IsBlockingInForce()) {
        engine.ReportSuspiciousProcess(false, *info);
        return;
    }
    if (const std::optional<bool> isolated = engine.Isolate(*info)) {
        engine.ReportSuspiciousProcess(*isolated, *info);
    }
}

bool SpecifiedFileAudit::IsBlockingInForce() {
    return ConfigManager::Instance()->GetActionBlock() == 1;
}

} // namespace Engine
