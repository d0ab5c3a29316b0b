#pragma once

#include <stdexcept>
#include <string>

#include <Poco/AutoPtr.h>

#include "framework/Module.h"
#include "framework/Task.h"

namespace TestSupport {

// A module that only holds the tasks that a test gives it.
class TaskHolder {
public:
    explicit TaskHolder(const std::string& name) : mModule(new Framework::Module(name)) {}
    ~TaskHolder() { End(); }
    TaskHolder(const TaskHolder&) = delete;
    TaskHolder& operator=(const TaskHolder&) = delete;

    // Starts the task; the result keeps the object alive beyond its end.
    template <typename TaskType> Poco::AutoPtr<TaskType> Start(TaskType* task) {
        Poco::AutoPtr<TaskType> kept(task, true);
        if (!mModule->RegisterTask(task, true)) {
            throw std::runtime_error("the task was not started");
        }
        return kept;
    }

    // Ends all tasks. False when one did not end in time.
    bool End() { return mModule->UnInit() == 0; }

private:
    Poco::AutoPtr<Framework::Module> mModule;
};

} // namespace TestSupport
