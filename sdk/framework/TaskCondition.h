#pragma once

#include <atomic>
#include <string>

namespace Framework {

// When a task's Run is called.
//
//     {"period": SECONDS}   once at the end of every period, 1 second or more
//     {}                    once, at the start; Run then lasts as long as the task
//
// The second is what a task has until a policy gives it another. Thread-safe.
class TaskCondition {
public:
    enum class TaskType {
        Thread = 0, // the task runs on a thread of its own; the only type there is
    };

    explicit TaskCondition(TaskType type) : mType(type) {}

    TaskType GetTaskType() const { return mType; }

    // The period in seconds; 1 for a task without a period. Never 0, so that it can divide.
    int GetTaskCondition() const { return IsPeriodic() ? mPeriodSeconds.load() : 1; }

    bool IsPeriodic() const { return mPeriodSeconds.load() > 0; }

    // 0 for no period.
    void SetPeriod(int seconds) { mPeriodSeconds.store(seconds); }

    // Reads a condition document. False, `periodSeconds` untouched, unless it is one of the two forms
    // above; 0 stands for no period. Other members are ignored.
    static bool Parse(const std::string& conditionJson, int& periodSeconds);

private:
    const TaskType mType;
    std::atomic<int> mPeriodSeconds{0};
};

} // namespace Framework
