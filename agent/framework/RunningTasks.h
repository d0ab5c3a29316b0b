#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <Poco/AutoPtr.h>

#include "framework/Task.h"
#include "sdk/RwLock.h"

namespace Framework {

// The tasks of one module that have been initialised, and their threads.
//
//   Admit    Init; from now on listed and found by name, its queue takes messages
//   Launch   its thread begins
//   Stop     asked to stop, thread joined, UnInit, no longer found nor listed, destroyed
//
// Admit, Launch and Stop are for one thread at a time; List is for any.
class RunningTasks {
public:
    RunningTasks() = default;
    ~RunningTasks();
    RunningTasks(const RunningTasks&) = delete;
    RunningTasks& operator=(const RunningTasks&) = delete;

    // False, the task un-initialised and let go, when its Init fails.
    bool Admit(Poco::AutoPtr<Task> task);

    // Starts the threads of all admitted tasks that have none, oldest first. False when one could not
    // be started; that task is un-initialised and let go.
    bool Launch();

    using Selector = std::function<bool(const Task& task)>;

    // Ends the selected tasks, last admitted first. All are asked before the first is waited for.
    // False when one did not end before Module::STOP_DEADLINE and was left behind.
    bool Stop(const Selector& selector);

    // Oldest first.
    std::vector<Poco::AutoPtr<Task>> List() const;

private:
    // `thread` and `ended` are for the thread that admits, launches and stops.
    struct Entry {
        Poco::AutoPtr<Task> task;
        std::thread thread;
        std::future<void> ended;
    };
    using EntryPtr = std::shared_ptr<Entry>;
    using Deadline = std::chrono::steady_clock::time_point;

    static bool StartThread(Entry& entry);
    bool End(const EntryPtr& entry, Deadline deadline);
    static void Abandon(Entry& entry);
    void Remove(const EntryPtr& entry);
    std::vector<EntryPtr> Entries() const;

    mutable SDK::RwLock mLock;
    std::vector<EntryPtr> mEntries GUARDED_BY(mLock);
};

// The names of all tasks of this process that were left behind because they did not end. Thread-safe.
std::vector<std::string> ListAbandonedTasks();

} // namespace Framework
