#include "framework/Scope.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

#include <fcntl.h>

#include "agent/sdk/FileDescriptor.h"
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

// A line for the v2 hierarchy, whose path has at most PATH_MAX bytes, and one for each v1 hierarchy.
constexpr std::size_t MAX_CGROUP_BYTES = 16384;

// Calls for every process that starts, hence without streams. The file comes in one read(2).
std::optional<std::string_view> ReadCgroups(int pid, std::array<char, MAX_CGROUP_BYTES>& buffer) {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/%d/cgroup", pid);
    const SDK::FileDescriptor file(open(path.data(), O_RDONLY | O_CLOEXEC));
    const ssize_t size = file.IsOpen() ? SDK::ReadRetrying(file.Get(), buffer.data(), buffer.size()) : -1;
    if (size <= 0) {
        return std::nullopt;
    }
    return std::string_view(buffer.data(), static_cast<std::size_t>(size));
}

// The v2 group among the lines of the file; empty when there is none.
std::string_view FindV2Group(std::string_view lines) {
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        const std::string_view line = lines.substr(0, end);
        if (line.starts_with(V2_PREFIX)) {
            return line.substr(V2_PREFIX.size());
        }
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
    return {};
}

bool IsInLimit(std::string_view cgroup) {
    Limit& limit = TheLimit();
    const SDK::ReadGuard guard(limit.lock);
    return limit.cgroup.empty() || IsAtOrBelow(cgroup, limit.cgroup);
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
    Limit& limit = TheLimit();
    const SDK::ReadGuard guard(limit.lock);
    return !limit.cgroup.empty();
}

std::optional<bool> Scope::Ask(int pid) {
    if (!IsLimited()) {
        return true;
    }
    std::array<char, MAX_CGROUP_BYTES> buffer; // NOLINT(*-member-init): read fills what is used
    const std::optional<std::string_view> groups = ReadCgroups(pid, buffer);
    return groups ? std::optional(IsInLimit(FindV2Group(*groups))) : std::nullopt;
}

bool Scope::Contains(int pid) {
    return Ask(pid).value_or(false);
}

bool Scope::ContainsCgroup(const std::string& cgroup) {
    return IsInLimit(cgroup);
}

} // namespace Framework
