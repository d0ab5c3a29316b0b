#pragma once

#include <string>

#include "framework/Task.h"

namespace Engine {

// The task "isolate_task": takes a process and its file out of circulation.
class IsolateTask : public Framework::Task {
public:
    using Framework::Task::Task;

    // Kills `pid` (SIGKILL) when `kill` is set; makes the file at `path` non-executable (mode 0400)
    // when `chmod` is set; `quarantine` asks to move the file away, which this version never does.
    // A flag that was set and whose act failed is cleared.
    //
    // Refused, with all flags cleared, nothing done and one log line that says why: pid 0 and below,
    // pid 1, a kernel thread, the agent itself, its ancestors, and any process outside the agent's
    // scope. The process is addressed by a pidfd from the check to the signal, so that a pid that was
    // reused in between is never hit.
    //
    // Only the image that the process runs is made non-executable: where `path` leads to another file
    // (it was replaced, the process sees other mounts, or the path is a script's), that file is left as
    // it is and `chmod` is cleared. A `path` that leads nowhere any more counts as done, because nothing
    // is left there to start.
    //
    // Returns true when the process was killed, if that was asked for, else when everything asked for was
    // done; what became of the rest is in the flags. Any thread; blocks for no longer than the system
    // calls take, and some 100 us more after a kill.
    virtual bool Isolate(int pid, const std::string& path, bool& kill, bool& chmod, bool& quarantine) = 0;
};

} // namespace Engine
