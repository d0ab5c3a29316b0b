#pragma once

#include <optional>
#include <string>

namespace Framework {

// Which processes the agent may see, judge and act on.
//
// Without a control group: all of them. With one: those whose control group (v2) is the named group
// or lies below it. The kernel is asked each time, since a process may be moved: for the group's id where it
// tells (Linux 6.13), and of a group not met before for its name. That is its path as it stands behind "0::"
// in /proc/PID/cgroup, seen from the agent's cgroup namespace.
class Scope {
public:
    // Sets the group for the whole process; an empty text takes the limit away. Called once at start,
    // before any module is loaded.
    static void SetCgroup(const std::string& cgroup);
    static std::string GetCgroup();

    static bool IsLimited();

    // Whether the process is in scope; nothing when the scope is limited and the process is gone, so that
    // nobody can tell, or could not be looked at (SDK::Shortage).
    static std::optional<bool> Ask(int pid);

    // The same of the process that the pidfd refers to, whose pid this is, for who holds one. Below 0 stands for
    // none.
    static std::optional<bool> Ask(int pid, int pidfd);

    // The same with a process that is gone taken for one outside.
    static bool Contains(int pid);

    // The limit alone, for a group path that is already known: "/a" holds "/a" and "/a/b", not "/ab".
    static bool ContainsCgroup(const std::string& cgroup);
};

} // namespace Framework
