#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include <unistd.h>

#include "support/TempCgroup.h"
#include "support/WaitFor.h"

namespace TestSupport {

// A control group of the test's own whose members may take so much more memory than they have when they join it; the
// kernel kills one that takes more. Of the v1 hierarchy where that has the memory controller, else of v2.
class MemoryLimit {
public:
    // Where the memory controller is: "" where it is not, or not for groups below the root.
    static std::string FindMount() {
        std::ifstream mounts("/proc/self/mountinfo");
        for (std::string line; std::getline(mounts, line);) {
            // proc(5): … MOUNT-POINT OPTIONS [OPTIONAL…] - TYPE SOURCE SUPER-OPTIONS
            const std::size_t type = line.find(" - cgroup ");
            if (type != std::string::npos && line.find("memory", type) != std::string::npos) {
                return MountPointOf(line);
            }
        }
        const std::string v2 = FindCgroupMount();
        std::ifstream controllers(v2 + "/cgroup.subtree_control");
        for (std::string controller; controllers >> controller;) {
            if (controller == "memory") {
                return v2;
            }
        }
        return "";
    }

    explicit MemoryLimit(std::uint64_t bytes) {
        const std::string mount = FindMount();
        std::string name = mount + "/corvalent-test-XXXXXX";
        if (mount.empty() || mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no control group for memory can be made");
        }
        mPath = name;
        const bool isV2 = access((mPath + "/memory.max").c_str(), F_OK) == 0;
        Write(isV2 ? "memory.max" : "memory.limit_in_bytes", std::to_string(bytes));
    }
    ~MemoryLimit() {
        WaitFor([this] { return rmdir(mPath.c_str()) == 0; });
    }
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

    void Add(int pid) const { Write("cgroup.procs", std::to_string(pid)); }

private:
    static std::string MountPointOf(const std::string& line) {
        std::istringstream fields(line);
        std::string mountPoint;
        for (int field = 0; field < 5; ++field) {
            fields >> mountPoint;
        }
        return mountPoint;
    }

    void Write(const std::string& file, const std::string& value) const {
        std::ofstream stream(mPath + "/" + file);
        stream << value << std::flush;
        if (!stream) {
            throw std::runtime_error("cannot write " + value + " to " + file);
        }
    }

    std::string mPath;
};

} // namespace TestSupport
