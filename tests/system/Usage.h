#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "system/Agent.h"

// What the daemon takes of the machine.
namespace SystemTest {

// The number of a line of /proc/PID/status (proc(5)), such as "VmRSS", which is in KiB, or "Threads".
inline long ReadProcessStatus(const Agent& agent, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(agent.GetPid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(key + ":")) {
            return std::stol(line.substr(line.find_first_of("0123456789")));
        }
    }
    return 0;
}

inline long ReadResidentKib(const Agent& agent) {
    return ReadProcessStatus(agent, "VmRSS");
}

// All that the daemon has open but sockets: those of the test's own requests come and go.
inline int CountDescriptors(const Agent& agent) {
    int count = 0;
    for (const auto& open : std::filesystem::directory_iterator("/proc/" + std::to_string(agent.GetPid()) + "/fd")) {
        std::error_code gone;
        const std::string target = std::filesystem::read_symlink(open.path(), gone).string();
        count += gone || target.starts_with("socket:") ? 0 : 1;
    }
    return count;
}

} // namespace SystemTest
