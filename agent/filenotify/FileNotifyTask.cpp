#include "agent/filenotify/FileNotifyTask.h"

#include <exception>
#include <utility>

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
        mWatchers.clear();
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
    auto found = mWatchers.find(request.GetWatcherName());
    if (found != mWatchers.end() && found->second->GetTaskInstance() != request.GetWatcherInstance()) {
        // The task that it was for has been replaced without taking its marks away.
        mWatchers.erase(found);
        found = mWatchers.end();
    }
    if (found == mWatchers.end()) {
        std::string problem;
        std::unique_ptr<Watcher> watcher = Watcher::Create(request, problem);
        if (!watcher) {
            moduleLog.Error("file accesses in [%s] cannot be watched: %s", request.GetPath(), problem);
            return;
        }
        found = mWatchers.emplace(request.GetWatcherName(), std::move(watcher)).first;
    }
    found->second->Add(request);
}

void FileNotifyTask::Remove(const FileNotifyWatchMessage& request) {
    const auto found = mWatchers.find(request.GetWatcherName());
    if (found == mWatchers.end() || found->second->GetTaskInstance() != request.GetWatcherInstance()) {
        return;
    }
    found->second->Remove(request);
    if (found->second->CountMarks() == 0) {
        mWatchers.erase(found);
    }
}

Json::Value FileNotifyTask::DescribeWatchers() const {
    Json::Value watchers(Json::arrayValue);
    const SDK::ReadGuard guard(mLock);
    for (const auto& [name, watcher] : mWatchers) {
        Json::Value& described = watchers.append(Json::Value(Json::objectValue));
        described["task"] = name;
        described["marks"] = Json::UInt64{watcher->CountMarks()};
        described["failed_marks"] = Json::UInt64{watcher->CountFailedMarks()};
    }
    return watchers;
}

} // namespace Engine
