#include "agent/isolate/Isolator.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/ImagePath.h"
#include "agent/sdk/Pidfd.h"
#include "framework/HandledEvent.h"
#include "framework/Scope.h"
#include "sdk/ModuleLog.h"
#include "sdk/ProcStat.h"
#include "sdk/Shortage.h"
#include "sdk/TimeUtils.h"

namespace Engine {

static SDK::ModuleLog moduleLog("isolate");

namespace {

constexpr mode_t NOT_EXECUTABLE = S_IRUSR;

// Deeper than any real chain of parents; a longer one is taken for inconclusive.
constexpr std::size_t MAX_ANCESTORS = 1024;

// What it takes a small process to be gone, and its parent to run.
constexpr std::chrono::microseconds DEATH_TIME{100};

// A descriptor of its own.
int Duplicate(int fd) {
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

// The process that is meant: the one that the event being handled was about when its handling began, or whoever
// bears the number now when there is no such event. -1 with errno when there is none.
int OpenMeantProcess(int pid) {
    int pidfd = -1;
    int error = 0;
    if (Framework::HandledEvent::IsAbout(pid, pidfd, error) && pidfd < 0) {
        errno = error;
        return -1;
    }
    const int own = pidfd < 0 ? SDK::OpenPidfd(pid) : Duplicate(pidfd);
    if (own < 0) {
        errno = SDK::Shortage::Note(errno);
    }
    return own;
}

// The parents of the agent up to init; nothing when the way up cannot be followed to its end.
std::optional<std::vector<int>> FindAncestors() {
    std::vector<int> ancestors;
    int pid = getpid();
    while (pid > 1 && ancestors.size() < MAX_ANCESTORS) {
        SDK::ProcStat stat;
        if (SDK::ProcStat::Read(pid, stat) != 0) {
            return std::nullopt;
        }
        pid = stat.ppid;
        ancestors.push_back(pid);
    }
    return pid <= 1 ? std::optional(ancestors) : std::nullopt;
}

bool Contains(const std::vector<int>& pids, int pid) {
    return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

// Also true when that cannot be told: what cannot be ruled out counts. Whoever is no ancestor at first will
// never be one, for a parent that ends leaves its children to one of its own; so only of those that were is
// it asked again.
bool MayBeAncestor(int pid) {
    static const std::optional<std::vector<int>> atFirst = FindAncestors();
    if (atFirst && !Contains(*atFirst, pid)) {
        return false;
    }
    const std::optional<std::vector<int>> now = FindAncestors();
    return !now || Contains(*now, pid);
}

// Why nobody may isolate what bears this number, seen from the number alone; null when nothing
// speaks against it.
const char* FindObjectionToPid(int pid) {
    if (pid <= 0) {
        return "it is no process id";
    }
    if (pid == 1) {
        return "it is the init process";
    }
    if (pid == getpid()) {
        return "it is the agent itself";
    }
    return nullptr;
}

// The same for the process that has the number now. One that is gone is in nobody's scope when there is a limit;
// without one it is no objection, and the signal will not find it. Kernel threads have no image.
const char* FindObjectionToProcess(int pid, const SDK::FileDescriptor& process, bool hasImage) {
    SDK::ProcStat stat;
    if (!hasImage && SDK::ProcStat::Read(pid, stat) == 0 && stat.IsKernelThread()) {
        return "it is a kernel thread";
    }
    if (MayBeAncestor(pid)) {
        return "it is an ancestor of the agent";
    }
    if (!Framework::Scope::Ask(pid, process.Get()).value_or(false)) {
        return "it is outside the agent's scope";
    }
    return nullptr;
}

// The file that a process runs.
using Image = std::optional<struct stat>;

Image GetImage(int pid) {
    struct stat image {};
    return SDK::StatImage(pid, image) ? Image(image) : std::nullopt;
}

std::string LinkOf(const SDK::FileDescriptor& file) {
    return "/proc/self/fd/" + std::to_string(file.Get());
}

// A process dies on the processor that it ran on last, and whoever waits for its death wakes on the one where he
// fell asleep; either may well be this one. What is still to be done here, files and reports, would hold them up.
// Yielding does not help: they come a moment later.
void StepAside() {
    std::this_thread::sleep_for(DEATH_TIME);
}

bool Kill(int pid, const SDK::FileDescriptor& process) {
    if (SDK::SendPidfdSignal(process.Get(), SIGKILL)) {
        return true;
    }
    moduleLog.Error("process [%d] could not be killed: %s", pid, std::strerror(errno));
    return false;
}

// Why the file that the path leads to is not the image's to change; null when it is.
const char* FindObjectionToFile(const std::string& path, const SDK::FileDescriptor& file, const Image& image) {
    struct stat found {};
    if (fstat(file.Get(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return "it is no regular file";
    }
    if (!image || image->st_dev != found.st_dev || image->st_ino != found.st_ino) {
        return "it is not the image that the process ran";
    }
    if (found.st_nlink > 1) {
        return "it has other names, which may be trusted";
    }
    std::string ownPath;
    if (SDK::ReadLink(LinkOf(file), ownPath) != 0 || ownPath != path) {
        return "the path leads to it through a link";
    }
    return nullptr;
}

// The descriptor does not open the file itself (O_PATH), so nobody who watches opens is asked, the
// agent's own watch on files included.
bool MakeUnexecutable(const std::string& path, const Image& image) {
    const SDK::FileDescriptor file(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!file.IsOpen()) {
        if (errno == ENOENT && (!image || image->st_nlink == 0)) {
            return true;
        }
        moduleLog.Error("file [%s] was left as it is: %s", path, std::strerror(errno));
        return false;
    }
    if (const char* objection = FindObjectionToFile(path, file, image)) {
        moduleLog.Error("file [%s] was left as it is: %s", path, objection);
        return false;
    }
    // An O_PATH descriptor takes no fchmod; its link in /proc leads to the very same file.
    if (chmod(LinkOf(file).c_str(), NOT_EXECUTABLE) != 0) {
        moduleLog.Error("the mode of file [%s] could not be changed: %s", path, std::strerror(errno));
        return false;
    }
    return true;
}

IsolationResult Refuse(int pid, const std::string& path, const std::string& reason) {
    moduleLog.Warning("process [%d] [%s] is not isolated: %s", pid, path, reason);
    IsolationResult result;
    result.refused = true;
    return result;
}

} // namespace

IsolationResult Isolator::Isolate(int pid, const std::string& path, bool kill, bool chmod) {
    if (const char* objection = FindObjectionToPid(pid)) {
        return Refuse(pid, path, objection);
    }
    IsolationResult result;
    const SDK::FileDescriptor process(OpenMeantProcess(pid));
    if (!process.IsOpen()) {
        moduleLog.Error("process [%d] [%s] could not be isolated: %s", pid, path, std::strerror(errno));
        return result;
    }
    const Image image = GetImage(pid);
    if (const char* objection = FindObjectionToProcess(pid, process, image.has_value())) {
        return Refuse(pid, path, objection);
    }
    // What was read by pid just now was the process's own only if it still has the pid.
    if (!SDK::SendPidfdSignal(process.Get(), 0)) {
        moduleLog.Error("process [%d] [%s] could not be isolated: %s", pid, path, std::strerror(errno));
        return result;
    }
    // The kill first: it is what cannot wait.
    result.killed = kill && Kill(pid, process);
    result.killedNs = result.killed ? SDK::TimeUtils::GetMonotonicNs() : 0;
    if (result.killed) {
        StepAside();
    }
    result.madeUnexecutable = chmod && MakeUnexecutable(path, image);
    return result;
}

} // namespace Engine
