#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>

#include "ProcessInfo.h"

namespace Engine {

// What the file audit remembers of one inode.
struct FileInodeNoCache {
    std::time_t lastAccess = 0; // wall clock of the latest event, seconds
    bool cared = false;         // the first path seen lies in the scope
    std::uint32_t hits = 0;     // events since it was remembered
    std::string path;           // the first path seen, for an inode that is cared for
};

// The file audit: decides for each file access whether the file lies in the configured scope, and lets
// the accessing process be learned or judged.
//
//     event ─► process of the event, by pid ─► scope of the file, by inode ─► learn or judge
//                      pid map                      inode cache
//
// A flood of events costs two look-ups and one stat(2) each: the scope is decided once an inode, by the
// path that is seen first (other links and later names of the file inherit it), a process is looked up
// and hashed once a pid, and one process is checked at most once in 2 seconds. Both tables outlive
// policies and modes, and both are bounded:
//
//     inode cache   from 100,000 entries on, those not seen for 30 seconds go; if that made much room,
//                   the rarely seen go too. A cache full of fresh entries may grow beyond that, by some
//                   100 bytes for each file that was opened within these seconds.
//     pid map       from 10,000 records on, those of ended processes go; the limit grows with the
//                   processes that live. A process that was given the number of an ended one gets a
//                   record of its own before it is learned or judged; where the ended one was trusted, at
//                   its first access from 2 seconds on after that was last made sure.
//
// One instance; all operations are for the thread of the task that owns it, so it has no lock.
class SpecifiedFileAudit {
public:
    static SpecifiedFileAudit& Instance();

    virtual ~SpecifiedFileAudit();
    SpecifiedFileAudit(const SpecifiedFileAudit&) = delete;
    SpecifiedFileAudit& operator=(const SpecifiedFileAudit&) = delete;

    // Names the owning task. False without one, or without memory.
    bool Init(void* owner);
    void Deinit();

    // ---- Scope -------------------------------------------------------------------------------------

    // True when the path begins with one of the configured directories, byte by byte: "/data" holds
    // "/database/x" too. Always true while marks stand on directories (then whatever arrives lies in
    // one), and when no directory is configured.
    bool IsCaredDir(const std::string& path) const;
    // True when the text behind the last "." of the whole path is one of the configured extensions;
    // case counts. Always true when none is configured.
    bool IsCaredExt(const std::string& path) const;
    bool IsCaredFile(const std::string& path) const;

    // ---- Inode cache -------------------------------------------------------------------------------

    // The inode's entry, made at the first call and counted as seen now. Null for an unknown inode
    // without a path. Good until entries are removed.
    FileInodeNoCache* GetInodeCacheEntry(std::uint64_t inode, const std::string& path);
    // Removes the entries seen less than `hits` times; returns how many those were.
    std::size_t DelInodeCountLess(std::uint64_t hits);
    // Makes room when the cache is full.
    void CheckAndDelInodeCache();

    // ---- Processes ---------------------------------------------------------------------------------

    // Drops the records of ended processes when there are too many.
    void KeepSizeProcessIDMap();
    // The audit's own record of the process, copied from the trust engine and hashed at the first call.
    // Null when the process is not known and cannot be looked up. Good until the next call.
    ProcessInfo* GetProcessInfo(int pid);

    // The audit judges every process by content, also one that runs a script.
    static void MatchByContent(ProcessInfo& info);
    // The agent itself is never audited.
    static bool IsOwnProcess(int pid);

    // ---- Rates -------------------------------------------------------------------------------------

    // Both measure the CPU time of the whole process. The event path does without them.

    // Counts an event: true when there were more than 10,000 within the second.
    bool IsTooManyMsg();
    // True for an event that comes within 2 milliseconds of the last one that was let through.
    bool SamplingNotifiesByInterval();

    // ---- Events ------------------------------------------------------------------------------------

    // One access of `path` by `pid`.
    void OnFileRecordMsg(std::int32_t pid, const std::string& path);
    // Learns the process in learning mode; reports, and if the policy says so isolates, an untrusted one
    // in detection.
    void FileLearnAndDetect(ProcessInfo* info) const;
    // Whether an untrusted process is isolated: the policy alone says so.
    static bool IsBlockingInForce();

private:
    SpecifiedFileAudit();

    // When the process of a record began.
    struct Begin {
        std::uint64_t ticks = 0; // see SDK::ProcStat; 0 where that could not be read
        std::time_t seen = 0;    // wall clock of the latest look, seconds
    };

    ProcessInfo* FindAudited(int pid, std::time_t now);
    ProcessInfo* RenewIfReused(ProcessInfo* info);

    std::map<std::int32_t, ProcessInfo> mProcesses;
    std::map<std::int32_t, Begin> mBegins;
    std::unique_ptr<char[]> mScratch;
    std::uint64_t mProcessLimit;
    std::map<std::uint64_t, FileInodeNoCache> mInodes;
    std::time_t mOldestAccess = 0;  // no entry was seen last before this
    std::int32_t mMessageCount = 0; // in the current second
    std::clock_t mWindowStart = 0;  // of the current second
    std::clock_t mLastSample = 0;   // 0: none yet
    void* mOwner = nullptr;
};

} // namespace Engine
