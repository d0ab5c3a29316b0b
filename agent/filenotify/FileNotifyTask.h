#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <json/value.h>

#include "agent/filenotify/Watcher.h"
#include "framework/Task.h"
#include "modules/FileNotifyWatchMessage.h"
#include "sdk/RwLock.h"

namespace Engine {

// The task "filenotify_task": carries out watch requests (FileNotifyWatchMessage), each on the thread
// that sends it, so that however many come none is lost to a full queue and its marks stand, or are
// gone, when the sender goes on.
//
// Each watching task has a Watcher of its own, with a thread that reads, from its first mark to its last.
// This task's own thread only waits for the end.
class FileNotifyTask : public Framework::Task {
public:
    static constexpr const char* NAME = "filenotify_task";

    FileNotifyTask();

    int Run() override;
    // Ends all watches.
    bool UnInit() override;

    // Takes watch requests; leaves everything else to the queue.
    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override;

    // [{"task", "marks", "failed_marks"}], by task name. Any thread.
    Json::Value DescribeWatchers() const;

private:
    void Handle(const FileNotifyWatchMessage& request);
    void Add(const FileNotifyWatchMessage& request) REQUIRES(mLock);
    void Remove(const FileNotifyWatchMessage& request) REQUIRES(mLock);

    // What one watching task has asked for.
    struct Watch {
        std::uint64_t instance = 0;       // of the watching task
        std::unique_ptr<Watcher> watcher; // null while the kernel allows none
        std::size_t refused = 0;          // marks that failed for want of a watcher
    };

    mutable SDK::RwLock mLock;
    std::map<std::string, Watch> mWatches GUARDED_BY(mLock); // by task name
    bool mEnded GUARDED_BY(mLock) = false;                   // no watch begins any more
};

} // namespace Engine
