#include "agent/filenotify/FileNotifyTask.h"

#include <exception>

#include "sdk/ModuleLog.h"

namespace Engine {

static SDK::ModuleLog moduleLog("filenotify");

namespace {

// Requests do not pass through the queue.
constexpr unsigned int QUEUE_CAPACITY = 16;
constexpr int MAX_MESSAGES = 16;

// How long the task sleeps; the stop wakes it.
constexpr int IDLE_WAIT_MS = 3600 * 1000;

} // namespace

FileNotifyTask::FileNotifyTask()
    : Framework::Task(NAME, "filenotify", Framework::TaskCondition::TaskType::Thread, QUEUE_CAPACITY) {}

int FileNotifyTask::Run() {
    while (state() != TASK_CANCELLING) {
        GetEventWaiter().WaitAndHandleEvent(IDLE_WAIT_MS, MAX_MESSAGES);
    }
    return 0;
}

bool FileNotifyTask::UnInit() {
    {
        const SDK::WriteGuard guard(mLock);
        mEnded = true;
        mWatches.clear();
    }
    return Framework::Task::UnInit();
}

bool FileNotifyTask::InterceptMsg(std::shared_ptr<Framework::Message>& message) {
    const auto* request = dynamic_cast<const FileNotifyWatchMessage*>(message.get());
    if (request == nullptr) {
        return false;
    }
    try {
        Handle(*request);
    } catch (const std::exception& error) {
        moduleLog.Error("the watch request for [%s] failed: %s", request->GetPath(), std::string(error.what()));
    }
    return true;
}

void FileNotifyTask::Handle(const FileNotifyWatchMessage& request) {
    const SDK::WriteGuard guard(mLock);
    if (request.GetOptions().add != 0) {
        Add(request);
    } else if (request.GetOptions().remove != 0) {
        Remove(request);
    }
}

void FileNotifyTask::Add(const FileNotifyWatchMessage& request) {
    if (mEnded) {
        return;
    }
    Watch& watch = mWatches[request.GetWatcherName()];
    if (watch.instance != request.GetWatcherInstance()) {
        // Another task of that name may have gone without taking its marks away.
        watch = {request.GetWatcherInstance(), nullptr, 0};
    }
    if (!watch.watcher) {
        std::string problem;
        watch.watcher = Watcher::Create(request, problem);
        if (!watch.watcher) {
            ++watch.refused;
            moduleLog.Error("file accesses in [%s] cannot be watched: %s", request.GetPath(), problem);
            return;
        }
    }
    watch.watcher->Add(request);
}

void FileNotifyTask::Remove(const FileNotifyWatchMessage& request) {
    const auto found = mWatches.find(request.GetWatcherName());
    if (found == mWatches.end() || found->second.instance != request.GetWatcherInstance()) {
        return;
    }
    const std::unique_ptr<Watcher>& watcher = found->second.watcher;
    if (watcher) {
        watcher->Remove(request);
    }
    if (!watcher || watcher->CountMarks() == 0) {
        mWatches.erase(found);
    }
}

Json::Value FileNotifyTask::DescribeWatchers() const {
    Json::Value watchers(Json::arrayValue);
    const SDK::ReadGuard guard(mLock);
    for (const auto& [name, watch] : mWatches) {
        const Watcher* watcher = watch.watcher.get();
        const std::size_t failed = watch.refused + (watcher == nullptr ? 0 : watcher->CountFailedMarks());
        Json::Value& described = watchers.append(Json::Value(Json::objectValue));
        described["task"] = name;
        described["marks"] = Json::UInt64{watcher == nullptr ? 0 : watcher->CountMarks()};
        described["failed_marks"] = Json::UInt64{failed};
    }
    return watchers;
}

} // namespace Engine
