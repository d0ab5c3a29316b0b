#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include <Poco/AutoPtr.h>

#include "framework/Task.h"
#include "sdk/RwLock.h"

namespace Framework {

// The tasks that can be found by name, of all modules together. Thread-safe.
class TaskIndex {
public:
    static TaskIndex& Instance();

    void Publish(const Poco::AutoPtr<Task>& task);

    // Nothing happens when the task is not there.
    void Withdraw(const Poco::AutoPtr<Task>& task);

    // The task of that name that was published last; null when there is none.
    Poco::AutoPtr<Task> Find(const std::string& name) const;

private:
    TaskIndex() = default;

    mutable SDK::RwLock mLock;
    // Never holds an empty list. Tasks of one name in the order of publication.
    std::unordered_map<std::string, std::vector<Poco::AutoPtr<Task>>> mTasks GUARDED_BY(mLock);
};

} // namespace Framework
