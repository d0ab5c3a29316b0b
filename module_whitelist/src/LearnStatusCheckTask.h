#pragma once

#include <cstdint>

#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"

namespace Engine {

// The task "learn_status_check_task": the module's clock, a loop of one turn a second.
//
// At once and then every hour it lets the learning clock advance and reports the mode
// ("whitelist_6"); every ten minutes it removes exited processes and, while learning, persists what
// was learned. The periods count turns, not wall time.
class LearnStatusCheckTask : public Framework::Task, public AbstractMessageReceiver {
public:
    LearnStatusCheckTask();

    bool Init() override;
    bool UnInit() override;
    // Loops until the task is cancelled, which it notices within a second. Always 0.
    int Run() override;

private:
    void ReportLearnStatus();
    void KeepHouse();

    // Turns since the last pass of each kind; used on the task's thread only.
    std::int32_t housekeepingTicks = 0;
    std::int32_t statusTicks = 0;
};

} // namespace Engine
