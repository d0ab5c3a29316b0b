#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Ctl::Doctor {

// Free room of the file system that a folder lies on.
struct Space {
    std::uint64_t freeBytes = 0; // for who is not root
    std::uint64_t totalBytes = 0;
    std::uint64_t freeInodes = 0;
    std::uint64_t totalInodes = 0; // 0: the file system does not count any
    bool readOnly = false;
};

// The system clock.
struct Clock {
    std::int64_t now = 0;      // seconds since the epoch
    bool synchronised = false; // as the kernel was told by who disciplines it (adjtimex(2))
};

// The one way by which the checks see the machine: a folder that looks like /proc, and the questions
// that no file answers. A test shows them another machine.
struct Machine {
    std::string proc = "/proc/";

    // "" when the door is open, otherwise why not, in one line.
    std::function<std::string()> tryProcConnector;
    std::function<std::string()> tryFanotify;
    std::function<std::string()> tryPidfd;

    // Whether fanotify says for each event why its file could not be opened (since Linux 6.13).
    std::function<bool()> hasFanotifyFileErrors;

    // 0, or an errno value and `space` untouched.
    std::function<int(const std::string& folder, Space& space)> measureSpace;

    std::function<Clock()> readClock;

    // This machine. The doors are tried with the agent's own code.
    static Machine Real();

    // A file below /proc; nothing when it cannot be read.
    std::optional<std::string> Read(const std::string& name) const;

    // A number that stands at the beginning of a file below /proc.
    std::optional<std::int64_t> ReadNumber(const std::string& name) const;

    // What a link below /proc says, without following it; "" when it cannot be read.
    std::string ReadLink(const std::string& name) const;
};

// A mounted file system, of proc(5)'s mountinfo.
struct Mount {
    std::string point;
    std::string type;
    std::string options; // the file system's own, and the mount's, with commas
};

// The mounts that this process sees; none when they cannot be read.
std::vector<Mount> ReadMounts(const Machine& machine);

// Where control groups v2 are mounted; "" when they are not.
std::string FindCgroupMount(const Machine& machine);

// A capability that the agent uses, of capabilities(7).
struct Capability {
    enum class Need { ALWAYS, TO_BLOCK, FOR_DIRECTORIES };

    unsigned int number; // include/uapi/linux/capability.h
    const char* name;
    const char* use;
    Need need;

    bool IsIn(std::uint64_t capabilities) const { return (capabilities >> number & 1U) != 0; }
};

// All of them.
const std::vector<Capability>& AgentCapabilities();

// The effective capabilities of a process ("self" or a number) as bits; nothing when they cannot be read.
std::optional<std::uint64_t> ReadCapabilities(const Machine& machine, const std::string& process);

} // namespace Ctl::Doctor
