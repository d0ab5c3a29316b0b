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
#include "agent/sdk/TurnTaking.h"
#include "framework/Counters.h"
#include "framework/EventWaiter.h"
#include "framework/Task.h"
#include "modules/FileNotifyMessage.h"
#include "modules/FileNotifyWatchMessage.h"

namespace Engine {

// One watching task's marks, and the threads that read what they report and send it to the task.
//
//     kernel's queue ─► batch ─► not our own, in scope ─► path of the descriptor ─► the task's queue
//     └──── reader ────┘       └────────────────────── sender ───────────────────────┘
//
// Looking up a path costs as much as reading an access. So while more than one batch waits a second thread sends
// what was read, batch after batch; a single batch the reader sends itself, rather than wake somebody.
//
// Accesses are read a few milliseconds after they happened. A program that is just being started opens
// its files, its own image first, before or shortly after the process becomes that program: read at
// once, such an access would be put down to the program that the process was before.
//
// The reader goes on only while the task's queue has room, for a moment at least: what waits in the
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
    // A watcher for the task of its first request, which is not carried out yet. Starts the threads. Null,
    // and `problem` says why in one line, when the kernel does not allow it.
    static std::unique_ptr<Watcher> Create(const FileNotifyWatchMessage& first, std::string& problem);

    // Ends the threads, takes all marks away, closes what is open.
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
    using Batches = SDK::TurnTaking<FanotifyGroup::Batch>;

    explicit Watcher(const FileNotifyWatchMessage& first);

    void StartThreads();

    // Reader thread.
    void ReadUntilStopped();
    bool WaitForAccesses();
    void ReadWaiting();
    void AwaitRoom() const;
    bool Pause(int milliseconds) const;
    bool ReadBatch(std::size_t waiting, FanotifyGroup::Batch& batch);
    void CloseBatches();

    // Sender thread; the reader while that has nothing.
    void SendUntilStopped();
    void Send(const FanotifyGroup::Batch& batch) noexcept;
    void HandleAccess(const FileAccess& access);
    std::string PathOf(const SDK::FileDescriptor& file) const;
    bool AddToPosts(const FileAccess& access);
    void PostAll();
    bool IsInScope(int pid);
    bool IsIgnored(int pid) const;
    void CountDropped(std::size_t count);
    void CountOverflows(std::size_t count);
    void LogLosses();

    Poco::AutoPtr<Framework::Task> FindTask() const;

    const std::string mTaskName;
    const std::uint64_t mTaskInstance;
    const std::set<std::int32_t> mIgnoredPids;
    SDK::FileDescriptor mDescriptors; // /proc/self/fd
    FanotifyGroup mGroup;
    Marks mMarks;
    std::size_t mFailedMarks = 0;

    Batches mBatches;

    // Whoever sends.
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
    std::thread mSender; // last, with the next, so that all they use is there
    std::thread mReader;
};

} // namespace Engine
