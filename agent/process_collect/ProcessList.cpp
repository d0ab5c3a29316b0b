#include "agent/process_collect/ProcessList.h"

#include <cerrno>
#include <charconv>
#include <memory>
#include <string_view>
#include <system_error>

#include <dirent.h>

#include "sdk/Shortage.h"

namespace Engine {

std::vector<int> ListPids() {
    std::vector<int> pids;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir("/proc"), closedir);
    if (!listing) {
        SDK::Shortage::Note(errno);
    }
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
        const std::string_view name = entry->d_name;
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
