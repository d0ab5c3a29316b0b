#pragma once

#include "framework/Counters.h"
#include "modules/IsolateTask.h"

namespace Engine {

// The task "isolate_task". Isolate runs on the caller's thread; the task's own only waits for its end.
//
// Counted: "isolate.killed" processes; "isolate.refused" requests; "isolate.failed" requests of which
// something could not be done.
class IsolateWorkTask : public IsolateTask {
public:
    static constexpr const char* NAME = "isolate_task";

    IsolateWorkTask();

    int Run() override;

    // See Isolator for what is refused and which files are left alone.
    bool Isolate(int pid, const std::string& path, bool& kill, bool& chmod, bool& quarantine) override;

private:
    Framework::Counter& mKilled;
    Framework::Counter& mRefused;
    Framework::Counter& mFailed;
};

} // namespace Engine
