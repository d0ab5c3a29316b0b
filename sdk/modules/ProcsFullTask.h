#pragma once

#include <map>

#include "framework/Task.h"
#include "modules/ProcsMessage.h"

namespace Engine {

// The task "procs_full_task" of the process-collection module: the table of running processes.
class ProcsFullTask : public Framework::Task {
public:
    using ProcsMap = std::map<int, ProcsMessage::procInfo>;

    using Framework::Task::Task;

    // Every process that runs now and lies in the agent's scope, by pid; the kernel's own threads are
    // not among them. A fresh copy that the caller owns. Any thread.
    virtual ProcsMap GetProcsMap() const = 0;
};

} // namespace Engine
