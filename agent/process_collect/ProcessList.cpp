#include "agent/process_collect/ProcessList.h"

#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

namespace Engine {

std::vector<int> ListPids() {
    std::vector<int> pids;
    std::error_code error;
    std::filesystem::directory_iterator entry("/proc", error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        const char* const end = name.data() + name.size();
        int pid = 0;
        const auto [parsed, failure] = std::from_chars(name.data(), end, pid);
        if (failure == std::errc() && parsed == end && pid > 0) {
            pids.push_back(pid);
        }
    }
    return pids;
}

} // namespace Engine
