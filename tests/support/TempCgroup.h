#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/WaitFor.h"

namespace TestSupport {

// Where the control group v2 hierarchy is mounted; empty where there is none.
inline std::string FindCgroupMount() {
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        // proc(5): … MOUNT-POINT OPTIONS [OPTIONAL…] - TYPE SOURCE SUPER-OPTIONS; the mount point is the
        // fifth field.
        if (line.find(" - cgroup2 ") != std::string::npos) {
            std::istringstream fields(line);
            std::string mountPoint;
            for (int field = 0; field < 5; ++field) {
                fields >> mountPoint;
            }
            return mountPoint;
        }
    }
    return "";
}

// Why no TempCgroup can be made here; empty when one can.
inline std::string WhyNoCgroup() {
    const std::string mount = FindCgroupMount();
    if (mount.empty()) {
        return "no control group v2 hierarchy is mounted";
    }
    return access(mount.c_str(), W_OK) == 0 ? "" : "control groups cannot be made here (needs root)";
}

// A control group (v2) of the test's own, directly below the root, and the only place where a test may
// let the agent kill. Whatever is still in it at the end is killed, and the group is removed.
class TempCgroup {
public:
    TempCgroup() {
        std::string name = FindCgroupMount() + "/corvalent-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("a control group cannot be made at " + name);
        }
        mPath = name;
    }
    ~TempCgroup() {
        // cgroup.kill: SIGKILL to every member (the kernel's cgroup-v2 documentation).
        std::ofstream(mPath + "/cgroup.kill") << 1;
        // A process that was just killed or reaped may stay listed for a moment.
        WaitFor([this] { return rmdir(mPath.c_str()) == 0; });
    }
    TempCgroup(const TempCgroup&) = delete;
    TempCgroup& operator=(const TempCgroup&) = delete;

    // As it stands behind "0::" in /proc/PID/cgroup.
    std::string Name() const { return mPath.substr(FindCgroupMount().size()); }

    // The directory.
    const std::string& Path() const { return mPath; }

    void Add(int pid) const {
        std::ofstream procs(mPath + "/cgroup.procs");
        procs << pid << std::flush;
        if (!procs) {
            throw std::runtime_error("process " + std::to_string(pid) + " cannot be moved to " + mPath);
        }
    }

    // The members now.
    std::vector<int> GetPids() const {
        std::ifstream procs(mPath + "/cgroup.procs");
        std::vector<int> pids;
        for (int pid = 0; procs >> pid;) {
            pids.push_back(pid);
        }
        return pids;
    }

private:
    std::string mPath;
};

} // namespace TestSupport
