#include "framework/Scope.h"

#include <fstream>
#include <string_view>

#include "sdk/RwLock.h"

namespace Framework {

namespace {

struct Limit {
    SDK::RwLock lock;
    // Without a trailing "/", except for the root group "/"; empty for no limit.
    std::string cgroup GUARDED_BY(lock);
};

// Never destroyed: tasks may still ask while the process exits.
Limit& TheLimit() {
    static Limit* const limit = new Limit;
    return *limit;
}

// cgroups(7): the line of the v2 hierarchy is "0::PATH".
constexpr std::string_view V2_PREFIX = "0::";

// A group outside the reader's cgroup namespace is shown relative to the namespace's root, "/../x".
constexpr std::string_view OUTSIDE_NAMESPACE = "/..";

bool IsAtOrBelow(std::string_view cgroup, std::string_view limit) {
    if (limit == "/") {
        return cgroup.starts_with("/") && !cgroup.starts_with(OUTSIDE_NAMESPACE);
    }
    return cgroup.starts_with(limit) && (cgroup.size() == limit.size() || cgroup[limit.size()] == '/');
}

// The process's v2 group; empty when the process is gone or has none.
std::string ReadCgroup(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/cgroup");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(V2_PREFIX)) {
            return line.substr(V2_PREFIX.size());
        }
    }
    return "";
}

} // namespace

void Scope::SetCgroup(const std::string& cgroup) {
    std::string name = cgroup;
    while (name.size() > 1 && name.back() == '/') {
        name.pop_back();
    }
    Limit& limit = TheLimit();
    const SDK::WriteGuard guard(limit.lock);
    limit.cgroup = name;
}

std::string Scope::GetCgroup() {
    Limit& limit = TheLimit();
    const SDK::ReadGuard guard(limit.lock);
    return limit.cgroup;
}

bool Scope::IsLimited() {
    return !GetCgroup().empty();
}

bool Scope::Contains(int pid) {
    return !IsLimited() || ContainsCgroup(ReadCgroup(pid));
}

bool Scope::ContainsCgroup(const std::string& cgroup) {
    const std::string limit = GetCgroup();
    return limit.empty() || IsAtOrBelow(cgroup, limit);
}

} // namespace Framework
