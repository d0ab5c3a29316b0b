#include "agent/framework/RunningTasks.h"

#include <string>
#include <system_error>
#include <utility>

#include <pthread.h>

#include "agent/framework/Guard.h"
#include "agent/framework/StopStep.h"
#include "agent/framework/TaskIndex.h"
#include "framework/Counters.h"
#include "framework/Module.h"
#include "sdk/ModuleLog.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

// pthread_setname_np(3): 15 bytes and the NUL.
constexpr std::size_t MAX_THREAD_NAME_BYTES = 15;

bool InitTask(Task& task) {
    bool done = false;
    CallGuarded("task", task.name(), "Init", [&] { done = task.Init(); });
    return done;
}

void UnInitTask(Task& task) {
    NoteStopStep("the UnInit of task [" + task.name() + "]");
    CallGuarded("task", task.name(), "UnInit", [&] {
        if (!task.UnInit()) {
            moduleLog.Warning("task [%s]: UnInit failed", task.name());
        }
    });
}

// The body of a task's thread.
void RunTask(Poco::AutoPtr<Task>& task, std::promise<void>& ended) {
    pthread_setname_np(pthread_self(), task->name().substr(0, MAX_THREAD_NAME_BYTES).c_str());
    CallGuarded("task", task->name(), "runTask", [&] { task->runTask(); });
    ended.set_value();
}

// Task objects that are kept for good, like this itself.
struct AbandonedTasks {
    SDK::RwLock lock;
    std::vector<Poco::AutoPtr<Task>> tasks GUARDED_BY(lock);

    static AbandonedTasks& Instance() {
        static auto* const instance = new AbandonedTasks;
        return *instance;
    }
};

void KeepForever(const Poco::AutoPtr<Task>& task) {
    AbandonedTasks& abandoned = AbandonedTasks::Instance();
    const SDK::WriteGuard guard(abandoned.lock);
    abandoned.tasks.push_back(task);
}

} // namespace

RunningTasks::~RunningTasks() {
    Stop([](const Task&) { return true; });
}

bool RunningTasks::Admit(Poco::AutoPtr<Task> task) {
    if (!InitTask(*task)) {
        Counters::Of("task.init_failures").Add();
        moduleLog.Error("task [%s]: Init failed, it is not started", task->name());
        UnInitTask(*task);
        return false;
    }
    auto entry = std::make_shared<Entry>();
    entry->task = task;
    {
        const SDK::WriteGuard guard(mLock);
        mEntries.push_back(std::move(entry));
    }
    TaskIndex::Instance().Publish(task);
    return true;
}

bool RunningTasks::Launch() {
    bool allStarted = true;
    for (const EntryPtr& entry : Entries()) {
        if (entry->ended.valid() || StartThread(*entry)) {
            continue;
        }
        allStarted = false;
        UnInitTask(*entry->task);
        Remove(entry);
    }
    return allStarted;
}

bool RunningTasks::StartThread(Entry& entry) {
    std::promise<void> ended;
    std::future<void> whenEnded = ended.get_future();
    entry.task->MarkStarting();
    try {
        entry.thread = std::thread([task = entry.task, ended = std::move(ended)]() mutable { RunTask(task, ended); });
    } catch (const std::system_error& error) {
        Counters::Of("task.init_failures").Add();
        moduleLog.Error("task [%s]: no thread can be started: %s", entry.task->name(), std::string(error.what()));
        return false;
    }
    entry.ended = std::move(whenEnded);
    moduleLog.Debug("task [%s] started", entry.task->name());
    return true;
}

bool RunningTasks::Stop(const Selector& selector) {
    std::vector<EntryPtr> ending = Entries();
    std::erase_if(ending, [&](const EntryPtr& entry) { return !selector(*entry->task); });
    for (const EntryPtr& entry : ending) {
        entry->task->RequestStop();
    }
    const Deadline deadline = std::chrono::steady_clock::now() + Module::STOP_DEADLINE;
    bool allEnded = true;
    // Each is let go before the next is waited for.
    for (; !ending.empty(); ending.pop_back()) {
        allEnded = End(ending.back(), deadline) && allEnded;
    }
    return allEnded;
}

bool RunningTasks::End(const EntryPtr& entry, Deadline deadline) {
    if (entry->ended.valid()) {
        NoteStopStep("the end of task [" + entry->task->name() + "]");
        if (entry->ended.wait_until(deadline) != std::future_status::ready) {
            Abandon(*entry);
            Remove(entry);
            return false;
        }
        entry->thread.join();
    }
    UnInitTask(*entry->task);
    Remove(entry);
    moduleLog.Debug("task [%s] ended", entry->task->name());
    return true;
}

void RunningTasks::Abandon(Entry& entry) {
    Counters::Of("task.abandoned").Add();
    moduleLog.Error("task [%s] did not end within %?d seconds after it was asked to: it is left behind",
                    entry.task->name(), Module::STOP_DEADLINE.count());
    entry.thread.detach();
    KeepForever(entry.task);
}

void RunningTasks::Remove(const EntryPtr& entry) {
    TaskIndex::Instance().Withdraw(entry->task);
    const SDK::WriteGuard guard(mLock);
    std::erase(mEntries, entry);
}

std::vector<RunningTasks::EntryPtr> RunningTasks::Entries() const {
    const SDK::ReadGuard guard(mLock);
    return mEntries;
}

std::vector<Poco::AutoPtr<Task>> RunningTasks::List() const {
    std::vector<Poco::AutoPtr<Task>> tasks;
    const SDK::ReadGuard guard(mLock);
    for (const EntryPtr& entry : mEntries) {
        tasks.push_back(entry->task);
    }
    return tasks;
}

std::vector<std::string> ListAbandonedTasks() {
    AbandonedTasks& abandoned = AbandonedTasks::Instance();
    std::vector<std::string> names;
    const SDK::ReadGuard guard(abandoned.lock);
    for (const Poco::AutoPtr<Task>& task : abandoned.tasks) {
        names.push_back(task->name());
    }
    return names;
}

} // namespace Framework
