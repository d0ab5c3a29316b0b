#pragma once

#include <cstdint>
#include <string_view>

namespace SDK {

// What /proc/PID/stat says of a process, as far as the agent asks (proc(5); the fields' numbers are
// those of that page).
struct ProcStat {
    // Bits of the field `flags`: include/linux/sched.h.
    static constexpr std::uint32_t FLAG_EXITING = 0x00000004;
    static constexpr std::uint32_t FLAG_FORKNOEXEC = 0x00000040; // forked, and no exec since
    static constexpr std::uint32_t FLAG_KTHREAD = 0x00200000;

    char state = 0;                 // field 3
    std::int32_t ppid = 0;          // field 4
    std::uint32_t flags = 0;        // field 9
    std::uint64_t userTicks = 0;    // field 14, clock ticks
    std::uint64_t kernelTicks = 0;  // field 15, clock ticks
    std::int64_t threads = 0;       // field 20; the first one counts until all have ended
    std::uint64_t startTime = 0;    // field 22, clock ticks since boot; with the pid it names a process
    std::uint64_t virtualBytes = 0; // field 23
    std::int64_t residentPages = 0; // field 24
    std::uint64_t startStack = 0;   // field 28; every exec draws a new one at random, a fork keeps it

    bool IsKernelThread() const { return (flags & FLAG_KTHREAD) != 0; }
    bool HasExecuted() const { return (flags & FLAG_FORKNOEXEC) == 0; }

    // True also for a process that is on its way out and runs no code of its own any more. State and flags are
    // those of the first thread, which can end before the others.
    bool HasEnded() const { return threads <= 1 && (state == 'Z' || state == 'X' || (flags & FLAG_EXITING) != 0); }

    // Reads the text of the file. False, `stat` untouched, when it is no such text.
    static bool Parse(std::string_view text, ProcStat& stat);

    // Reads /proc/PID/stat. 0, or an errno value (ENOENT or ESRCH: no such process; EINVAL: not
    // understood) and `stat` untouched. Never throws.
    static int Read(int pid, ProcStat& stat);

    // True for what Read gives of a process that is not there, as opposed to one that could not be looked at.
    static bool IsGone(int error);
};

} // namespace SDK
