#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace SDK {

// What /proc says of one process (proc(5)). Results of type int are 0 on success and an errno value
// otherwise (ESRCH or ENOENT when there is no such process), outputs untouched then. Nothing throws.
class ProcessUtils {
public:
    // A process's identity and credentials, from /proc/PID/status.
    struct procStatus {
        std::string name;       // the kernel's short name of the task, at most 15 bytes
        std::string state;      // one letter: R, S, D, Z, T, …
        std::int32_t ppid = 0;  // 0 for pid 1 and for the kernel's own threads
        std::uint32_t uid = 0;  // real
        std::uint32_t euid = 0; // effective
        std::uint32_t gid = 0;  // real
        std::uint32_t egid = 0; // effective
    };

    // The target of /proc/PID/exe as the kernel gives it: the path in the process's own mount namespace. An
    // image that was deleted or replaced after the start keeps the kernel's suffix " (deleted)", unless the
    // calling thread holds it (ProcessImage). Kernel threads have no image (ENOENT). One that lies so deep that
    // its path does not fit (4,095 bytes) is named by the link itself, which leads to it.
    static int GetProcessExePath(int pid, std::string& path);

    // /proc/PID/cmdline with its NULs turned into blanks and the last one dropped, cut after
    // `maxBytes` bytes. An exited or kernel process gives an empty text.
    static int GetProcessCmdline(int pid, std::string& cmdline, std::size_t maxBytes);

    // The target of /proc/PID/cwd.
    static int GetProcessCwd(int pid, std::string& cwd);

    // The name of the user whose real id the process runs under; the number in decimal when the
    // user data base has no name for it.
    static int GetProcessUser(int pid, std::string& user);

    // When the process began: seconds since the epoch.
    static int GetProcessStartTime(int pid, std::int64_t& startTime);

    static int GetProcessStatusInfo(int pid, procStatus& status);

    // True for the agent's own processes: this process, its children, and whatever runs one of the
    // programs in the installation's bin folder.
    static bool IsAuthorizedProcess(int pid);
};

} // namespace SDK
