#pragma once

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/WaitFor.h"

namespace TestSupport {

// Where the control group file system (v2) is mounted; empty when it is not.
inline std::string FindCgroup2Mount() {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // proc(5): the mount point is the fifth field, the type stands behind " - ".
        if (line.find(" - cgroup2 ") == std::string::npos) {
            continue;
        }
        std::size_t begin = 0;
        for (int field = 1; field < 5; ++field) {
            begin = line.find(' ', begin) + 1;
        }
        return line.substr(begin, line.find(' ', begin) - begin);
    }
    return "";
}

// A control group of the test's own, the only place where it may let the agent kill. At the end
// every process in it is killed and the group is removed.
class Cgroup {
public:
    explicit Cgroup(const std::string& name = "corvalent-test-" + std::to_string(getpid())) {
        const std::string mount = FindCgroup2Mount();
        if (mount.empty()) {
            throw std::runtime_error("no cgroup2 file system is mounted");
        }
        mName = "/" + name;
        mPath = mount + mName;
        if (mkdir(mPath.c_str(), 0755) != 0) {
            throw std::runtime_error("cannot make " + mPath + ": " + std::strerror(errno));
        }
    }
    ~Cgroup() {
        WaitFor([&] {
            for (const int pid : GetPids()) {
                kill(pid, SIGKILL);
            }
            return rmdir(mPath.c_str()) == 0;
        });
    }
    Cgroup(const Cgroup&) = delete;
    Cgroup& operator=(const Cgroup&) = delete;

    // As it stands behind "0::" in /proc/PID/cgroup.
    const std::string& Name() const { return mName; }
    // The directory.
    const std::string& Path() const { return mPath; }

    std::vector<int> GetPids() const {
        std::ifstream file(mPath + "/cgroup.procs");
        std::vector<int> pids;
        for (int pid = 0; file >> pid;) {
            pids.push_back(pid);
        }
        return pids;
    }

private:
    std::string mName;
    std::string mPath;
};

// Moves a process (0: the calling one) into the group in that directory. Async-signal-safe, for use
// between fork and exec.
inline bool JoinCgroup(const char* procsFile, const char* pid = "0") {
    const int fd = open(procsFile, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const std::size_t length = std::strlen(pid);
    const bool done = write(fd, pid, length) == static_cast<ssize_t>(length);
    close(fd);
    return done;
}

} // namespace TestSupport
