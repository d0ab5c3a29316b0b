#include "agent/daemon/CounterHelp.h"

#include <array>

namespace Daemon {

std::span<const CounterHelp> ListCounterHelp() {
    static constexpr std::array ALL = {
        CounterHelp{"events.exec", "Programs started in scope."},
        CounterHelp{"events.fork", "Processes forked in scope."},
        CounterHelp{"events.exit", "Processes ended in scope."},
        CounterHelp{"events.judged", "Executions and forks that the whitelist module has seen."},
        CounterHelp{"events.folded", "Forks whose child executed at once, judged as one start."},
        CounterHelp{"events.lost", "Process events that a full queue refused, and overflows of the kernel's buffer."},
        CounterHelp{"events.overflow", "Overflows of the kernel's buffer of process events."},
        CounterHelp{"events.rescan", "Comparisons of the process table with /proc after a loss."},
        CounterHelp{"events.rescued", "Processes announced by a comparison with /proc or after a gap."},
        CounterHelp{"events.garbled", "Messages from the kernel that could not be decoded."},
        CounterHelp{"events.starved",
                    "Executions and forks that could not be judged for want of descriptors or memory, judged again."},
        CounterHelp{"events.subscribed", "Subscriptions to process events."},
        CounterHelp{"files.read", "File accesses that the kernel reported."},
        CounterHelp{"files.own", "File accesses by the agent itself."},
        CounterHelp{"files.unscoped", "File accesses by processes outside the agent's scope."},
        CounterHelp{"files.posted", "File accesses sent to the task that watches."},
        CounterHelp{"files.dropped", "File accesses that could not be sent to the task that watches."},
        CounterHelp{"files.judged", "File accesses that the whitelist module has seen."},
        CounterHelp{"files.overflow", "Overflows of the kernel's queue of file accesses."},
        CounterHelp{"files.lost", "File accesses dropped, and overflows of the kernel's queue."},
        CounterHelp{"isolate.killed", "Processes killed."},
        CounterHelp{"isolate.refused", "Isolations refused, because nobody may act on the process."},
        CounterHelp{"isolate.failed", "Isolations of which something could not be done."},
        CounterHelp{"digest.hit", "Digests of files that were known from before."},
        CounterHelp{"digest.miss", "Digests of files that were computed."},
        CounterHelp{"digest.refused",
                    "Computed digests that are not remembered, because the file could change unnoticed."},
        CounterHelp{"reports.stored", "Reports stored in the history."},
        CounterHelp{"reports.write_errors", "Failed attempts to store reports, which are repeated."},
        CounterHelp{"reports.given_up", "Reports that could not be stored before the agent's end."},
        CounterHelp{"log.lost", "Records that could not be written to the log's file."},
        CounterHelp{"queue.lost", "Messages of any kind that a full queue refused."},
        CounterHelp{"messages.undeliverable", "Messages to a task that does not run."},
        CounterHelp{"resources.short",
                    "Attempts to look at something for which no descriptor or memory was to be had."},
        CounterHelp{"daemon.unclean_end", "1 when the run before this one did not end in order."},
        CounterHelp{"task.exceptions", "Exceptions caught at the border of a task."},
        CounterHelp{"module.exceptions", "Exceptions caught at the border of a module."},
        CounterHelp{"task.init_failures", "Tasks that were not started because their start failed."},
        CounterHelp{"task.abandoned", "Tasks that did not end within ten seconds and were left behind."},
    };
    return ALL;
}

} // namespace Daemon
