#pragma once

#include <cstdint>

#include "framework/Counters.h"
#include "modules/IsolateTask.h"
#include "sdk/Histogram.h"

namespace Engine {

// The task "isolate_task". Isolate runs on the caller's thread; the task's own only waits for its end.
//
// Counted: "isolate.killed" processes; "isolate.refused" requests; "isolate.failed" requests of which
// something could not be done. How long a process could run after the event on whose account it is
// killed (Framework::HandledEvent) goes to the histogram "kill".
class IsolateWorkTask : public IsolateTask {
public:
    static constexpr const char* NAME = "isolate_task";

    IsolateWorkTask();

    int Run() override;

    // See Isolator for what is refused and which files are left alone.
    bool Isolate(int pid, const std::string& path, bool& kill, bool& chmod, bool& quarantine) override;

private:
    void CountKill(std::uint64_t killedNs);

    Framework::Counter& mKilled;
    Framework::Counter& mRefused;
    Framework::Counter& mFailed;
    SDK::Histogram& mTimeToKill;
};

} // namespace Engine
