#pragma once

#include <cstdint>
#include <optional>

namespace SDK {

// pidfd_open(2): a descriptor of the process that bears the number now, closed on exec. -1 with errno; ESRCH when
// there is no such process.
int OpenPidfd(int pid);

// pidfd_send_signal(2). False with errno; ESRCH when the process is gone.
bool SendPidfdSignal(int pidfd, int signal);

// What the kernel says of the process that a pidfd refers to.
struct PidfdInfo {
    int ppid = 0;                          // as /proc/PID/stat has it
    std::optional<std::uint64_t> cgroupId; // of its v2 group: the inode of the group's folder
};

// The PIDFD_GET_INFO of Linux 6.13. Nothing when the process is gone, when the kernel is older, or for a descriptor
// below 0. It takes half of what a look into /proc does, and leaves nothing there that the kernel has to tidy up
// when the process ends.
std::optional<PidfdInfo> AskPidfd(int pidfd);

} // namespace SDK
