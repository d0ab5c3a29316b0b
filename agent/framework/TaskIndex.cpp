#include "agent/framework/TaskIndex.h"

#include <algorithm>

namespace Framework {

TaskIndex& TaskIndex::Instance() {
    // Never destroyed: a task that was given up may still look for others while the process exits.
    static TaskIndex* const index = new TaskIndex;
    return *index;
}

void TaskIndex::Publish(const Poco::AutoPtr<Task>& task) {
    const SDK::WriteGuard guard(mLock);
    mTasks[task->name()].push_back(task);
}

void TaskIndex::Withdraw(const Poco::AutoPtr<Task>& task) {
    const SDK::WriteGuard guard(mLock);
    const auto named = mTasks.find(task->name());
    if (named == mTasks.end()) {
        return;
    }
    // The caller's own reference keeps the task alive, so that it is not destroyed under the lock.
    std::erase(named->second, task);
    if (named->second.empty()) {
        mTasks.erase(named);
    }
}

Poco::AutoPtr<Task> TaskIndex::Find(const std::string& name) const {
    const SDK::ReadGuard guard(mLock);
    const auto named = mTasks.find(name);
    return named == mTasks.end() ? Poco::AutoPtr<Task>() : named->second.back();
}

} // namespace Framework
