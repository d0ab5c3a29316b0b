#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <Poco/AutoPtr.h>

#include "agent/filenotify/FanotifyGroup.h"
#include "agent/filenotify/Marks.h"
#include "framework/Counters.h"
#include "framework/EventWaiter.h"
#include "framework/Task.h"
#include "modules/FileNotifyMessage.h"
#include "modules/FileNotifyWatchMessage.h"

namespace Engine {

// One watching task's marks, and the thread that reads what they report and sends it to the task.
//
//     kernel's queue ─► batch ─► not our own, in scope ─► path of the descriptor ─► the task's queue
//
// Accesses are read a few milliseconds after they happened. A program that is just being started opens
// its files, its own image first, before or shortly after the process becomes that program: read at
// once, such an access would be put down to the program that the process was before.
//
// The thread reads on only while the task's queue has room, for a moment at least: what waits in the
// kernel's queue is not lost yet, and repeated accesses are merged there. A task that takes nothing for
// longer loses what does not fit.
//
// Every access is accounted for in exactly one counter, so that with all of one moment
//
//     files.read = files.own + files.unscoped + files.posted + files.dropped
//
//     files.read       accesses that the kernel reported
//     files.own        by the agent itself, or by a process that the watcher ignores
//     files.unscoped   by a process outside the agent's scope, or, when that is limited, one that has ended
//     files.posted     sent to the watching task
//     files.dropped    not sent: the task's queue was full or the task gone, or the file could not be
//                      opened or has no path
//     files.overflow   how often the kernel's queue ran over; how much was lost then is not known
//     files.lost       files.dropped + files.overflow
//
// Add, Remove, Count and the destructor: one thread at a time.
class Watcher {
public:
    // A watcher for the task of its first request, which is not carried out yet. Starts the thread. Null,
    // and `problem` says why in one line, when the kernel does not allow it.
    static std::unique_ptr<Watcher> Create(const FileNotifyWatchMessage& first, std::string& problem);

    // Ends the thread, takes all marks away, closes what is open.
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    // Carry out one request. A mark that cannot be placed is logged and counted.
    void Add(const FileNotifyWatchMessage& request);
    void Remove(const FileNotifyWatchMessage& request);

    const std::string& GetTaskName() const { return mTaskName; }
    std::uint64_t GetTaskInstance() const { return mTaskInstance; }
    std::size_t CountMarks() const { return mMarks.Count(); }
    std::size_t CountFailedMarks() const { return mFailedMarks; }

private:
    explicit Watcher(const FileNotifyWatchMessage& first);

    // Reader thread.
    void ReadUntilStopped();
    bool WaitForAccesses();
    void ReadWaiting();
    void AwaitRoom(const Framework::Task& task);
    bool Pause(int milliseconds) const;
    std::size_t ReadBatch(std::size_t waiting, Framework::Task* task);
    void HandleAccess(const FileAccess& access);
    std::string PathOf(const SDK::FileDescriptor& file) const;
    bool AddToPosts(const FileAccess& access);
    void PostAll(Framework::Task* task);
    bool IsInScope(int pid);
    bool IsIgnored(int pid) const;
    Poco::AutoPtr<Framework::Task> FindTask() const;
    void CountDropped(std::size_t count);
    void CountOverflows(std::size_t count);
    void LogLosses();

    const std::string mTaskName;
    const std::uint64_t mTaskInstance;
    const std::set<std::int32_t> mIgnoredPids;
    SDK::FileDescriptor mDescriptors; // /proc/self/fd
    FanotifyGroup mGroup;
    Marks mMarks;
    std::size_t mFailedMarks = 0;

    // Reader thread only.
    FanotifyGroup::Batch mBatch;
    std::unordered_map<int, bool> mScopeOfBatch;              // the scope of a process, asked once a batch
    std::vector<std::shared_ptr<Framework::Message>> mPosts;  // of this batch, sent together
    std::shared_ptr<std::deque<FileNotifyMessage>> mMessages; // where these lie, which own them together
    std::chrono::steady_clock::time_point mLossLogged;

    Framework::Counter& mRead;
    Framework::Counter& mOwn;
    Framework::Counter& mUnscoped;
    Framework::Counter& mPosted;
    Framework::Counter& mDropped;
    Framework::Counter& mOverflows;
    Framework::Counter& mLost;

    Framework::Event mStop;
    std::atomic<bool> mStopping{false};
    std::thread mReader; // last, so that all it uses is there
};

} // namespace Engine
