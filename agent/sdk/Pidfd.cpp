#include "agent/sdk/Pidfd.h"

#include <array>

#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace SDK {

namespace {

// struct pidfd_info and PIDFD_GET_INFO of include/uapi/linux/pidfd.h, Linux 6.13, which the system's headers
// need not have. The kernel fills in what is asked for in `mask` and it knows.
struct KernelInfo {
    static constexpr std::uint64_t PIDS = 1U << 0U;
    static constexpr std::uint64_t CGROUP_ID = 1U << 2U;

    std::uint64_t mask;
    std::uint64_t cgroupId;
    std::uint32_t pid;
    std::uint32_t tgid;
    std::uint32_t ppid;
    std::array<std::uint32_t, 9> others;
};
static_assert(sizeof(KernelInfo) == 64);
constexpr unsigned long GET_INFO = _IOWR(0xFF, 11, KernelInfo);

} // namespace

// By number: Debian 12's C library has the wrappers, older ones do not.
int OpenPidfd(int pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

bool SendPidfdSignal(int pidfd, int signal) {
    return syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) == 0;
}

std::optional<PidfdInfo> AskPidfd(int pidfd) {
    KernelInfo answer{KernelInfo::PIDS | KernelInfo::CGROUP_ID, 0, 0, 0, 0, {}};
    if (pidfd < 0 || ioctl(pidfd, GET_INFO, &answer) != 0 || (answer.mask & KernelInfo::PIDS) == 0) {
        return std::nullopt;
    }
    PidfdInfo info;
    info.ppid = static_cast<int>(answer.ppid);
    if ((answer.mask & KernelInfo::CGROUP_ID) != 0) {
        info.cgroupId = answer.cgroupId;
    }
    return info;
}

} // namespace SDK
