#include <array>
#include <charconv>
#include <sstream>
#include <string>

#include "ctl/Output.h"
#include "ctl/doctor/Finding.h"

namespace Ctl::Doctor {

namespace {

// ---- the kernel

struct KernelVersion {
    int major = 0;
    int minor = 0;

    bool IsBelow(int otherMajor, int otherMinor) const {
        return major != otherMajor ? major < otherMajor : minor < otherMinor;
    }
};

bool ParseVersion(const std::string& text, KernelVersion& version) {
    const char* end = text.data() + text.size();
    const auto major = std::from_chars(text.data(), end, version.major);
    if (major.ec != std::errc() || major.ptr == end || *major.ptr != '.') {
        return false;
    }
    return std::from_chars(major.ptr + 1, end, version.minor).ec == std::errc();
}

std::string FirstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

Finding CheckKernel(const Subject& subject) {
    const std::string release = FirstLine(subject.machine.Read("sys/kernel/osrelease").value_or(""));
    KernelVersion version;
    if (!ParseVersion(release, version)) {
        return Warning("the kernel's version is not known [" + release + "]",
                       "see that /proc is mounted whole, with /proc/sys");
    }
    // pidfd_open(2), by which a process is killed and no other that took its number.
    if (version.IsBelow(5, 3)) {
        return Failed(release + ", below 5.3: a process cannot be killed safely", "run Linux 5.3 or later");
    }
    if (version.IsBelow(6, 6)) {
        return Ok(release + "; from 6.6 on it would send only the process events that are wanted");
    }
    return Ok(release + "; it sends only the process events that are wanted");
}

Finding CheckProcConnector(const Subject& subject) {
    const std::string problem = subject.machine.tryProcConnector();
    if (problem.empty()) {
        return Ok("it sends process events");
    }
    return Failed(problem,
                  "run as root in the initial namespaces, outside containers, on a kernel with CONFIG_CONNECTOR=y and "
                  "CONFIG_PROC_EVENTS=y");
}

Finding CheckFanotify(const Subject& subject) {
    const std::string problem = subject.machine.tryFanotify();
    if (problem.empty()) {
        return Ok(subject.machine.hasFanotifyFileErrors()
                      ? "marks can be placed; events are read in batches"
                      : "marks can be placed; events are read one by one, from Linux 6.13 on in batches");
    }
    static const std::string REMEDY = "run as root (CAP_SYS_ADMIN) on a kernel with CONFIG_FANOTIFY=y";
    return subject.policy.directoryMode ? Failed(problem + "; the policy's directory mode lives on it", REMEDY)
                                        : Warning(problem + "; directory mode would not work", REMEDY);
}

Finding CheckPidfd(const Subject& subject) {
    const std::string problem = subject.machine.tryPidfd();
    return problem.empty() ? Ok("processes can be held and signalled")
                           : Failed("processes cannot be held: " + problem,
                                    "run Linux 5.3 or later, and let no system call filter refuse pidfd_open");
}

// ---- mounts

Finding CheckCgroup(const Subject& subject) {
    const std::string mount = FindCgroupMount(subject.machine);
    const std::string& scope = subject.scope;
    if (mount.empty()) {
        static const std::string REMEDY = "mount -t cgroup2 none /sys/fs/cgroup/unified, or boot with "
                                          "systemd.unified_cgroup_hierarchy=1";
        return scope.empty()
                   ? Warning("not mounted; a scope cannot be set", REMEDY)
                   : Failed("not mounted, but the scope is the control group " + scope + ": the agent sees no process",
                            REMEDY);
    }
    if (scope.empty()) {
        return Ok("mounted at " + mount + "; the scope is the whole machine");
    }
    Space ignored;
    if (subject.machine.measureSpace(mount + scope, ignored) != 0) {
        return Failed("there is no control group " + scope + " below " + mount + ": the agent sees no process",
                      "make the group, or correct scope.cgroup in conf/agent.json and restart the daemon");
    }
    return Ok("mounted at " + mount + "; the scope is " + scope);
}

bool HasOption(const std::string& options, const std::string& name) {
    return ("," + options + ",").find("," + name) != std::string::npos;
}

Finding CheckProc(const Subject& subject) {
    const Mount* proc = nullptr;
    const std::vector<Mount> mounts = ReadMounts(subject.machine);
    for (const Mount& mount : mounts) {
        proc = mount.type == "proc" && mount.point == "/proc" ? &mount : proc;
    }
    if (proc == nullptr) {
        return Failed("not mounted at /proc", "mount -t proc proc /proc");
    }
    const bool open = HasOption(proc->options, "hidepid=0,") || HasOption(proc->options, "hidepid=off,");
    if (HasOption(proc->options, "hidepid=") && !open) {
        return Warning("mounted with hidepid (" + proc->options + ")",
                       "leave CAP_SYS_PTRACE to the daemon, which sees every process with it, or remount without "
                       "hidepid");
    }
    if (HasOption(proc->options, "subset=pid,")) {
        return Warning("mounted with subset=pid, settings of the kernel cannot be seen", "remount without subset");
    }
    return Ok("mounted, every process can be seen");
}

// ---- this process

Finding CheckOwnRights(const Subject& subject) {
    const auto capabilities = ReadCapabilities(subject.machine, "self");
    if (!capabilities) {
        return Warning("not known: /proc/self/status cannot be read", "mount -t proc proc /proc");
    }
    std::string missing;
    for (const Capability& capability : AgentCapabilities()) {
        if (!capability.IsIn(*capabilities)) {
            missing += std::string(missing.empty() ? "" : ", ") + capability.name;
        }
    }
    return missing.empty() ? Ok("all that the agent needs")
                           : Warning("missing: " + missing + "; what depends on them cannot be tried out",
                                     "run corvalentctl doctor as root, outside containers");
}

// ---- settings of the kernel

struct Setting {
    const char* name; // as sysctl(8) writes it
    std::int64_t enough;
    const char* reason; // why less is bad
};

// The marks are one for each directory of a policy, some 8,192 at most; the queue's default takes a
// burst of as many accesses.
constexpr std::array<Setting, 4> SETTINGS = {{
    {"fs.fanotify.max_queued_events", 16384,
     "a burst of file accesses overflows the kernel's queue, and some are lost"},
    {"fs.fanotify.max_user_marks", 16384, "the marks on a policy's directories may not all be placed"},
    {"fs.fanotify.max_user_groups", 16, "a watch may be refused when other programs watch files, too"},
    {"kernel.pid_max", 32768, "process ids are used again so soon that one may mean another process when it is judged"},
}};

std::string PathOf(const std::string& setting) {
    std::string path = "sys/" + setting;
    for (char& c : path) {
        c = c == '.' ? '/' : c;
    }
    return path;
}

Finding CheckSetting(const Subject& subject, const Setting& setting) {
    const auto value = subject.machine.ReadNumber(PathOf(setting.name));
    if (!value) {
        return Warning("not known", std::string("see that the kernel has ") + setting.name);
    }
    if (*value >= setting.enough) {
        return Ok(std::to_string(*value));
    }
    const std::string enough = std::to_string(setting.enough);
    return Warning(std::to_string(*value) + ", below " + enough + ": " + setting.reason,
                   "sysctl -w " + std::string(setting.name) + "=" + enough + ", and the same in /etc/sysctl.d/");
}

Finding CheckReceiveBuffer(const Subject& subject) {
    const auto value = subject.machine.ReadNumber("sys/net/core/rmem_max");
    if (!value) {
        return Warning("not to be seen: this is not the initial network namespace",
                       "run the daemon, and corvalentctl doctor, outside containers");
    }
    return Ok(std::to_string(*value) + "; the agent's 8 MiB for process events go beyond it with CAP_NET_ADMIN");
}

Finding CheckOpenFiles(const Subject& subject) {
    std::int64_t used = 0;
    std::int64_t unused = 0;
    std::int64_t limit = 0;
    std::istringstream text(subject.machine.Read("sys/fs/file-nr").value_or(""));
    if (!(text >> used >> unused >> limit)) {
        return Warning("not known", "see that /proc is mounted whole, with /proc/sys");
    }
    const std::string found = std::to_string(used) + " of " + std::to_string(limit) + " files open on the machine";
    constexpr int NEARLY_ALL_PERCENT = 90;
    return used < limit / 100 * NEARLY_ALL_PERCENT
               ? Ok(found)
               : Warning(found + ": soon nobody can open any, the agent included",
                         "find who holds them (/proc/PID/fd), or raise fs.file-max");
}

// ---- the clock

constexpr std::int64_t YEAR_2025 = 1735689600;
constexpr std::int64_t YEAR_2100 = 4102444800;

Finding CheckClock(const Subject& subject) {
    const std::int64_t now = subject.machine.readClock().now;
    if (now < YEAR_2025 || now >= YEAR_2100) {
        return Failed(FormatTime(now) + " cannot be: reports and alerts bear wrong times",
                      "set the clock (timedatectl set-time), then restart the daemon");
    }
    return Ok(FormatTime(now));
}

Finding CheckSynchronised(const Subject& subject) {
    return subject.machine.readClock().synchronised
               ? Ok("synchronised")
               : Warning("not synchronised: times of reports may not agree with other machines'",
                         "run a time service, such as chrony or systemd-timesyncd");
}

} // namespace

Checks MachineChecks() {
    Checks checks = {
        {"kernel", CheckKernel},        {"process events", CheckProcConnector}, {"fanotify", CheckFanotify},
        {"pidfd", CheckPidfd},          {"control groups", CheckCgroup},        {"/proc", CheckProc},
        {"own rights", CheckOwnRights},
    };
    for (const Setting& setting : SETTINGS) {
        checks.push_back({setting.name, [&setting](const Subject& subject) { return CheckSetting(subject, setting); }});
    }
    checks.push_back({"net.core.rmem_max", CheckReceiveBuffer});
    checks.push_back({"fs.file-max", CheckOpenFiles});
    checks.push_back({"clock", CheckClock});
    checks.push_back({"time service", CheckSynchronised});
    return checks;
}

} // namespace Ctl::Doctor
