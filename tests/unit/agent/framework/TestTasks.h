#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <Poco/AutoPtr.h>

#include "framework/Task.h"

namespace FrameworkTest {

// What happened, in order; any thread may write.
class Journal {
public:
    void Add(const std::string& entry) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.push_back(entry);
    }

    std::vector<std::string> Entries() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mEntries;
    }

    long Count(const std::string& entry) const {
        const std::vector<std::string> entries = Entries();
        return std::count(entries.begin(), entries.end(), entry);
    }
    bool Has(const std::string& entry) const { return Count(entry) > 0; }

    void Clear() {
        const std::lock_guard<std::mutex> lock(mMutex);
        mEntries.clear();
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mEntries;
};

// A message that bears a number and tells when it is destroyed.
class NumberMessage : public Framework::Message {
public:
    explicit NumberMessage(int number, std::atomic<int>* destroyed = nullptr)
        : mNumber(number), mDestroyed(destroyed) {}
    ~NumberMessage() override {
        if (mDestroyed != nullptr) {
            mDestroyed->fetch_add(1);
        }
    }

    int Number() const { return mNumber; }

private:
    const int mNumber;
    std::atomic<int>* const mDestroyed;
};

inline bool Enqueue(Framework::Task& task, int number) {
    std::shared_ptr<Framework::Message> message = std::make_shared<NumberMessage>(number);
    return task.EnqueueMsg(message);
}

// A task whose Run and HandleMsg are the test's; it keeps the numbers that it received.
class ScriptedTask : public Framework::Task {
public:
    using Body = std::function<int(ScriptedTask& task)>;

    explicit ScriptedTask(const std::string& name, Body body = HandleMessagesUntilStopped, unsigned int capacity = 16)
        : Framework::Task(name, "test_feature", Framework::TaskCondition::TaskType::Thread, capacity),
          mBody(std::move(body)) {}

    int Run() override {
        runs.fetch_add(1);
        return mBody(*this);
    }

    int HandleMsg(const Framework::Message* message) override {
        const int number = dynamic_cast<const NumberMessage&>(*message).Number();
        if (onMessage) {
            onMessage(number);
        }
        const std::lock_guard<std::mutex> lock(mMutex);
        mNumbers.push_back(number);
        return 0;
    }

    std::vector<int> Numbers() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mNumbers;
    }

    int Wait(int timeoutMs, int max) { return GetEventWaiter().WaitAndHandleEvent(timeoutMs, max); }
    bool Sleep(long milliseconds) { return sleep(milliseconds); }

    static int HandleMessagesUntilStopped(ScriptedTask& task) {
        while (task.state() != Poco::Task::TASK_CANCELLING) {
            task.Wait(LONG_MS, 16);
        }
        return 0;
    }

    // Longer than any test may last.
    static constexpr int LONG_MS = 3600 * 1000;

    // Set before the task's thread begins.
    std::function<void(int number)> onMessage;
    std::atomic<int> runs{0};

private:
    const Body mBody;
    mutable std::mutex mMutex;
    std::vector<int> mNumbers;
};

// Runs a task's body on a thread of its own, and ends it at the end of the scope.
class TaskThread {
public:
    explicit TaskThread(Framework::Task& task) : mTask(task), mThread([&task] { task.runTask(); }) {}
    ~TaskThread() { Stop(); }
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    void Stop() {
        mTask.RequestStop();
        if (mThread.joinable()) {
            mThread.join();
        }
    }

private:
    Framework::Task& mTask;
    std::thread mThread;
};

inline Poco::AutoPtr<ScriptedTask> MakeTask(const std::string& name,
                                            ScriptedTask::Body body = ScriptedTask::HandleMessagesUntilStopped,
                                            unsigned int capacity = 16) {
    return Poco::AutoPtr<ScriptedTask>(new ScriptedTask(name, std::move(body), capacity));
}

} // namespace FrameworkTest
