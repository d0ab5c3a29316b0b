#pragma once

namespace SDK {

// The agent's CPU governor: keeps the whole process within a budget in percent of one core by
// letting the threads that ask for it sleep. Off until the agent's settings give a budget.
// Thread-safe. Ticks are microseconds of process CPU time (TimeUtils::GetCurrentSystemTickUsed).
//
// Long loops do not call it directly but through CpuThrottle.
class InnerCpuCtrlUtils {
public:
    static bool IsEnabled();

    // How much CPU time a loop may use before it should call AdjustThreadCpu.
    static unsigned long GetSuggestedRunTick();

    // Sleeps for as long as it takes to bring `elapsed` ticks of CPU time, used by the process since
    // the caller's last adjustment, down to the budget; at most one second, and less as far as the
    // process is within its budget already. `file`, `line` and `who` name the loop in the trace log;
    // `now` is the tick at the time of the call.
    static void AdjustThreadCpu(const char* file, int line, const char* who, unsigned long now, unsigned long elapsed);
};

} // namespace SDK
