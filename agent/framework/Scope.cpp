#include "framework/Scope.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <unordered_map>

#include <fcntl.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/Pidfd.h"
#include "sdk/RwLock.h"
#include "sdk/Shortage.h"

namespace Framework {

namespace {

struct Limit {
    SDK::RwLock lock;
    // Without a trailing "/", except for the root group "/"; empty for no limit.
    std::string cgroup GUARDED_BY(lock);
    // Groups, by the kernel's id of them, and whether they are within the limit. A v2 group is never renamed
    // or moved and its id is never given again, so that this stays true.
    std::unordered_map<std::uint64_t, bool> known GUARDED_BY(lock);
};

constexpr std::size_t MAX_KNOWN_GROUPS = 4096;

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
    if (!file.IsOpen()) {
        SDK::Shortage::Note(errno);
        return std::nullopt;
    }
    const ssize_t size = SDK::ReadRetrying(file.Get(), buffer.data(), buffer.size());
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

std::optional<std::uint64_t> AskGroupId(int pidfd) {
    const std::optional<SDK::PidfdInfo> info = SDK::AskPidfd(pidfd);
    return info ? info->cgroupId : std::nullopt;
}

std::optional<bool> FindKnown(std::uint64_t group) {
    Limit& limit = TheLimit();
    const SDK::ReadGuard guard(limit.lock);
    const auto found = limit.known.find(group);
    return found == limit.known.end() ? std::nullopt : std::optional(found->second);
}

void Remember(std::uint64_t group, bool inLimit) {
    Limit& limit = TheLimit();
    const SDK::WriteGuard guard(limit.lock);
    if (limit.known.size() >= MAX_KNOWN_GROUPS) {
        limit.known.clear();
    }
    limit.known[group] = inLimit;
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
    limit.known.clear();
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
    const SDK::FileDescriptor process(SDK::OpenPidfd(pid));
    if (!process.IsOpen() && errno == ESRCH) {
        return std::nullopt;
    }
    return Ask(pid, process.Get());
}

std::optional<bool> Scope::Ask(int pid, int pidfd) {
    if (!IsLimited()) {
        return true;
    }
    const std::optional<std::uint64_t> group = AskGroupId(pidfd);
    if (const std::optional<bool> known = group ? FindKnown(*group) : std::nullopt) {
        return known;
    }
    std::array<char, MAX_CGROUP_BYTES> buffer; // NOLINT(*-member-init): read fills what is used
    const std::optional<std::string_view> groups = ReadCgroups(pid, buffer);
    if (!groups) {
        return std::nullopt;
    }
    const bool inLimit = IsInLimit(FindV2Group(*groups));
    // Only a process that has stayed where it was tells what the group is called.
    if (group && AskGroupId(pidfd) == group) {
        Remember(*group, inLimit);
    }
    return inLimit;
}

bool Scope::Contains(int pid) {
    return Ask(pid).value_or(false);
}

bool Scope::ContainsCgroup(const std::string& cgroup) {
    return IsInLimit(cgroup);
}

} // namespace Framework
