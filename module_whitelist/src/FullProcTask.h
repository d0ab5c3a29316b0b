#pragma once

#include <cstdint>

#include "framework/Task.h"
#include "modules/AbstractMessageReceiver.h"

namespace Engine {

// The task "full_proc_task": while the module learns, reports what was learned and saves it.
//
// Every run sends the newly learned processes ("whitelist_3"); every N-th run sends all running ones
// first ("whitelist_2"), N being the policy's scan period divided by this task's own period. With an N
// below 1 the full report is never sent. Outside learning a run does nothing.
class FullProcTask : public Framework::Task, public AbstractMessageReceiver {
public:
    FullProcTask();

    bool Init() override;
    bool UnInit() override;
    // One run. Always 0.
    int Run() override;

private:
    void SendReport(const char* type, const std::string& text);

    // Runs since the last full report; used on the task's thread only.
    std::int32_t runCounter = 0;
};

} // namespace Engine
