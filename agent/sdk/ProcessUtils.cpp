#include "sdk/ProcessUtils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/ImagePath.h"
#include "agent/sdk/WithoutThrowing.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcStat.h"
#include "sdk/ProcessImage.h"
#include "sdk/Shortage.h"

namespace SDK {

namespace {

// More than any of the files read here holds; /proc/stat has a line for every processor and one
// with a number for every interrupt.
constexpr std::size_t PROC_FILE_MAX_BYTES = 16777216;

// The kernel's TASK_COMM_LEN without the NUL (include/linux/sched.h).
constexpr std::size_t TASK_NAME_BYTES = 15;

constexpr std::array<const char*, 2> OWN_PROGRAMS{"corvalentd", "corvalentctl"};

std::string ProcPath(int pid, const char* name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

// The first `maxBytes` bytes of a file of /proc, whose sizes are not known beforehand.
int ReadProcFile(const std::string& path, std::string& content, std::size_t maxBytes) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return Shortage::Note(errno);
    }
    std::array<char, 4096> buffer; // NOLINT(*-member-init): read fills what is used
    std::string read;
    while (read.size() < maxBytes) {
        const ssize_t count = ReadRetrying(file.Get(), buffer.data(), std::min(buffer.size(), maxBytes - read.size()));
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        read.append(buffer.data(), static_cast<std::size_t>(count));
    }
    content = std::move(read);
    return 0;
}

// In /proc/PID/status a backslash and a newline in the name are escaped as \\ and \n.
std::string UnescapeTaskName(const std::string& escaped) {
    std::string name;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] == '\\' && i + 1 < escaped.size()) {
            ++i;
            name += escaped[i] == 'n' ? '\n' : escaped[i];
        } else {
            name += escaped[i];
        }
    }
    // The kernel gives its workers longer names here than tasks have.
    return name.substr(0, TASK_NAME_BYTES);
}

ProcessUtils::procStatus ParseStatus(const std::string& text) {
    ProcessUtils::procStatus status;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        const std::string::size_type tab = line.find('\t');
        if (tab == std::string::npos) {
            continue;
        }
        const std::string key = line.substr(0, tab);
        const std::string value = line.substr(tab + 1);
        std::istringstream fields(value);
        if (key == "Name:") {
            status.name = UnescapeTaskName(value);
        } else if (key == "State:") {
            status.state = value.substr(0, 1);
        } else if (key == "PPid:") {
            fields >> status.ppid;
        } else if (key == "Uid:") {
            fields >> status.uid >> status.euid;
        } else if (key == "Gid:") {
            fields >> status.gid >> status.egid;
        }
    }
    return status;
}

int LookUpUser(std::uint32_t uid, std::string& user) {
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd* found = nullptr;
    while (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    user = found == nullptr ? std::to_string(uid) : std::string(found->pw_name);
    return 0;
}

// When the system was booted, in seconds since the epoch: the line "btime N" of /proc/stat.
int ReadBootTime(std::int64_t& bootTime) {
    std::string text;
    const int result = ReadProcFile("/proc/stat", text, PROC_FILE_MAX_BYTES);
    if (result != 0) {
        return result;
    }
    static const std::string KEY = "\nbtime ";
    const std::string::size_type position = text.find(KEY);
    if (position == std::string::npos) {
        return EIO;
    }
    bootTime = std::strtoll(text.c_str() + position + KEY.size(), nullptr, 10);
    return 0;
}

// Asks the kernel, which knows its children without a look into /proc: whoever is none gives ECHILD. The child
// stays to be waited for.
bool IsChild(int pid) {
    siginfo_t info{};
    return pid > 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0;
}

// Of the image that the thread holds of the process, if it does.
bool StatJudgedImage(int pid, struct stat& image) {
    const ProcessImage* const held = ProcessImage::Of(pid);
    return held != nullptr && held->GetFd() >= 0 ? fstat(held->GetFd(), &image) == 0 : StatImage(pid, image);
}

// A link in the bin folder does not make the program that it leads to one of the agent's.
bool RunsOwnProgram(int pid) {
    struct stat image {};
    if (!StatJudgedImage(pid, image)) {
        return false;
    }
    const std::string folder = PathUtils::GetInstallationPath() + "bin/";
    return std::any_of(OWN_PROGRAMS.begin(), OWN_PROGRAMS.end(), [&](const char* name) {
        struct stat program {};
        return lstat((folder + name).c_str(), &program) == 0 && S_ISREG(program.st_mode) &&
               program.st_dev == image.st_dev && program.st_ino == image.st_ino;
    });
}

} // namespace

int ProcessUtils::GetProcessExePath(int pid, std::string& path) {
    return WithoutThrowing([&] {
        if (const ProcessImage* held = ProcessImage::Of(pid)) {
            path = held->GetPath();
            return 0;
        }
        std::string link = ImageLink(pid);
        int result = ReadLink(link, path);
        if (result == ENOENT) {
            if (std::optional<std::string> other = FindOtherImageLink(pid)) {
                link = std::move(*other);
                result = ReadLink(link, path);
            }
        }
        // Deep enough in nested folders a file has no path that fits; the link itself leads to it.
        if (result == ENAMETOOLONG) {
            path = link;
            return 0;
        }
        return result;
    });
}

int ProcessUtils::GetProcessCmdline(int pid, std::string& cmdline, std::size_t maxBytes) {
    return WithoutThrowing([&] {
        std::string text;
        // One byte more, so that the last NUL does not count against the limit.
        const std::size_t readLimit = maxBytes + 1 == 0 ? maxBytes : maxBytes + 1;
        const int result = ReadProcFile(ProcPath(pid, "cmdline"), text, readLimit);
        if (result != 0) {
            return result;
        }
        if (!text.empty() && text.back() == '\0') {
            text.pop_back();
        }
        text.resize(std::min(text.size(), maxBytes));
        std::replace(text.begin(), text.end(), '\0', ' ');
        cmdline = std::move(text);
        return 0;
    });
}

int ProcessUtils::GetProcessCwd(int pid, std::string& cwd) {
    return WithoutThrowing([&] { return ReadLink(ProcPath(pid, "cwd"), cwd); });
}

int ProcessUtils::GetProcessUser(int pid, std::string& user) {
    return WithoutThrowing([&] {
        procStatus status;
        const int result = GetProcessStatusInfo(pid, status);
        return result == 0 ? LookUpUser(status.uid, user) : result;
    });
}

int ProcessUtils::GetProcessStartTime(int pid, std::int64_t& startTime) {
    return WithoutThrowing([&] {
        ProcStat stat;
        std::int64_t bootTime = 0;
        int result = ProcStat::Read(pid, stat);
        if (result == 0) {
            result = ReadBootTime(bootTime);
        }
        if (result == 0) {
            startTime = bootTime + static_cast<std::int64_t>(stat.startTime) / sysconf(_SC_CLK_TCK);
        }
        return result;
    });
}

int ProcessUtils::GetProcessStatusInfo(int pid, procStatus& status) {
    return WithoutThrowing([&] {
        std::string text;
        const int result = ReadProcFile(ProcPath(pid, "status"), text, PROC_FILE_MAX_BYTES);
        if (result == 0) {
            status = ParseStatus(text);
        }
        return result;
    });
}

bool ProcessUtils::IsAuthorizedProcess(int pid) {
    if (pid == getpid()) {
        return true;
    }
    try {
        return IsChild(pid) || RunsOwnProgram(pid);
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace SDK
