#pragma once

namespace SDK {

// Sets the budget that InnerCpuCtrlUtils keeps the process within, in percent of one core; 0 (or
// less) switches the governor off. More than 100 is meaningful on a machine with several cores.
// Thread-safe; CPU time used before the call does not count.
void SetCpuBudgetPercent(int percentOfOneCore);

} // namespace SDK
