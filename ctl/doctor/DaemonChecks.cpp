#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <sstream>

#include <sys/stat.h>

#include "ctl/Output.h"
#include "ctl/doctor/Finding.h"
#include "sdk/JsonUtils.h"

namespace Ctl::Doctor {

namespace {

namespace fs = std::filesystem;
using SDK::JsonUtils;

constexpr const char* LOCK = "run/agent.lock";

std::string FileOf(const Subject& subject, const std::string& name) {
    return std::to_string(subject.DaemonPid()) + "/" + name;
}

// ---- is there one, and only one

// Who holds the lock of the root, by the kernel's own table of locks; 0 when nobody does.
int FindLockHolder(const Subject& subject) {
    struct stat lock {};
    if (stat((subject.root + LOCK).c_str(), &lock) != 0) {
        return 0;
    }
    // proc(5): NUMBER: FLOCK ADVISORY WRITE PID MAJOR:MINOR:INODE FIRST LAST
    const std::string wanted = ":" + std::to_string(lock.st_ino);
    std::istringstream text(subject.machine.Read("locks").value_or(""));
    for (std::string line; std::getline(text, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string kind;
        std::string skipped;
        std::string file;
        int pid = 0;
        if (fields >> number >> kind >> skipped >> skipped >> pid >> file && kind == "FLOCK" &&
            file.ends_with(wanted)) {
            return pid;
        }
    }
    return 0;
}

Finding CheckRunning(const Subject& subject) {
    const int holder = FindLockHolder(subject);
    if (subject.HasDaemon()) {
        const std::string pid = std::to_string(subject.DaemonPid());
        if (holder > 0 && holder != subject.DaemonPid()) {
            return Failed("pid " + pid + " answers, but pid " + std::to_string(holder) + " works in this root",
                          "stop both, then start one");
        }
        return Ok("pid " + pid + ", up " +
                  FormatDuration(JsonUtils::GetInt64Value(subject.status, "uptime_seconds", 0)));
    }
    if (!subject.daemonMissing) {
        return Failed(subject.noAnswer, "ask as root; else see log/corvalent.log, and restart the daemon");
    }
    if (holder > 0) {
        return Failed("pid " + std::to_string(holder) + " works in this root, but " + subject.noAnswer,
                      "wait until it is ready, or see log/corvalent.log and restart it");
    }
    static const std::string REMEDY = "start it: systemctl start corvalent, or bin/corvalentd --root DIR";
    return subject.policy.accepted ? Failed("not running, although a policy was accepted: nothing is watched", REMEDY)
                                   : Warning("not running", REMEDY);
}

Finding CheckSocket(const Subject& subject) {
    constexpr mode_t OTHERS = S_IRWXG | S_IRWXO;
    for (const std::string path : {"run", "run/agent.sock"}) {
        struct stat found {};
        if (stat((subject.root + path).c_str(), &found) == 0 && (found.st_mode & OTHERS) != 0) {
            return Failed(path + " is open to others than its owner: they can steer the agent",
                          "restart the daemon, which closes it, and ask who opened it");
        }
    }
    return Ok("open to its owner only");
}

Finding CheckProgram(const Subject& subject) {
    const std::string version = JsonUtils::GetStringValue(subject.status, "version", "unknown");
    if (version != CORVALENT_VERSION) {
        return Warning("the daemon is version " + version + ", corvalentctl " + CORVALENT_VERSION,
                       "restart the daemon, or call the corvalentctl that was installed with it");
    }
    if (subject.machine.ReadLink(FileOf(subject, "exe")).ends_with(" (deleted)")) {
        return Warning("version " + version + ", but its file was replaced since it was started", "restart the daemon");
    }
    return Ok("version " + version + ", as corvalentctl");
}

// ---- what it may do

bool IsNeeded(Capability::Need need, const Policy& policy) {
    return need == Capability::Need::ALWAYS || (need == Capability::Need::TO_BLOCK && policy.blocks) ||
           (need == Capability::Need::FOR_DIRECTORIES && policy.directoryMode);
}

Finding CheckDaemonRights(const Subject& subject) {
    const auto capabilities = ReadCapabilities(subject.machine, std::to_string(subject.DaemonPid()));
    if (!capabilities) {
        return Warning("not known: /proc/" + FileOf(subject, "status") + " cannot be read",
                       "call corvalentctl doctor in the daemon's own pid namespace");
    }
    std::string missing;
    bool needed = false;
    for (const Capability& capability : AgentCapabilities()) {
        if (!capability.IsIn(*capabilities)) {
            missing += (missing.empty() ? "" : ", ") + std::string(capability.name) + " (" + capability.use + ")";
            needed = needed || IsNeeded(capability.need, subject.policy);
        }
    }
    static const std::string REMEDY = "run it as root, and let the service keep them (CapabilityBoundingSet=)";
    if (missing.empty()) {
        return Ok("all that it needs");
    }
    return needed ? Failed("missing: " + missing, REMEDY)
                  : Warning("missing, not needed by the policy in force: " + missing, REMEDY);
}

// The numbers of the initial namespaces, of include/uapi/linux/nsfs.h. The first two are so on every kernel,
// the others on new ones only.
constexpr std::array<const char*, 5> INITIAL_NAMESPACES = {"user:[4026531837]", "pid:[4026531836]", "net:[4026531833]",
                                                           "mnt:[4026531832]", "cgroup:[4026531835]"};

bool IsInitial(const std::string& name) {
    return std::find(INITIAL_NAMESPACES.begin(), INITIAL_NAMESPACES.end(), name) != INITIAL_NAMESPACES.end();
}

std::string NamespaceOf(const Subject& subject, const std::string& process, const std::string& kind) {
    return subject.machine.ReadLink(process + "/ns/" + kind);
}

struct Namespace {
    const char* kind;
    bool hasFixedNumber; // the initial one's, on every kernel
    const char* harm;    // when the daemon is in another
    bool blinds;         // it is of no use then
};

constexpr std::array<Namespace, 5> NAMESPACES = {{
    {"user", true, "the kernel does not tell it of processes", true},
    {"pid", true, "the kernel does not tell it of processes", true},
    {"net", false, "the kernel does not tell it of processes", true},
    {"mnt", false, "paths may mean other files to it than to the processes that it judges", false},
    {"cgroup", false, "control groups have other names to it", false},
}};

Finding CheckNamespace(const Subject& subject, const Namespace& wanted) {
    static const std::string OUTSIDE = "run the daemon outside containers, and without what gives a service a view "
                                       "of its own";
    const std::string own = NamespaceOf(subject, std::to_string(subject.DaemonPid()), wanted.kind);
    const std::string first = NamespaceOf(subject, "1", wanted.kind);
    if (IsInitial(own)) {
        return Ok("the machine's initial one");
    }
    if (own.empty() || (first.empty() && !wanted.hasFixedNumber)) {
        return Warning("not known: the links in /proc/PID/ns cannot be read", "call corvalentctl doctor as root");
    }
    if (own == first && !wanted.hasFixedNumber) {
        return Ok("that of pid 1");
    }
    const std::string found = std::string("not the machine's initial one: ") + wanted.harm;
    return wanted.blinds ? Failed(found, OUTSIDE) : Warning(found, OUTSIDE);
}

// ---- its limits

// The soft limit of that name in proc(5)'s limits; nothing when it is not there. Without a limit: the
// greatest number.
std::optional<std::int64_t> ReadLimit(const Subject& subject, const std::string& name) {
    const std::string text = subject.machine.Read(FileOf(subject, "limits")).value_or("");
    const std::size_t place = text.find("\n" + name);
    if (place == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(text.substr(place + name.size() + 1));
    std::string soft;
    fields >> soft;
    if (soft == "unlimited") {
        return INT64_MAX;
    }
    std::int64_t limit = 0;
    const bool read = std::from_chars(soft.data(), soft.data() + soft.size(), limit).ec == std::errc();
    return read ? std::optional(limit) : std::nullopt;
}

std::int64_t CountOpenFiles(const Subject& subject) {
    std::error_code error;
    std::int64_t count = 0;
    for (fs::directory_iterator entry(subject.machine.proc + FileOf(subject, "fd"), error), end; !error && entry != end;
         entry.increment(error)) {
        ++count;
    }
    return count;
}

Finding CheckOpenFiles(const Subject& subject) {
    const auto limit = ReadLimit(subject, "Max open files");
    if (!limit) {
        return Warning("not known", "call corvalentctl doctor as root");
    }
    // A batch of file accesses holds 128 files open.
    constexpr std::int64_t ENOUGH = 1024;
    constexpr std::int64_t NEEDED = 256;
    constexpr std::int64_t NEARLY_ALL_PERCENT = 80;
    static const std::string REMEDY = "raise the limit (LimitNOFILE= of the service) and restart the daemon";
    const std::int64_t open = CountOpenFiles(subject);
    const std::string found = std::to_string(open) + " open of at most " + std::to_string(*limit);
    if (*limit < NEEDED) {
        return Failed(found + ": images and file accesses will be missed", REMEDY);
    }
    return *limit < ENOUGH || open > *limit / 100 * NEARLY_ALL_PERCENT ? Warning(found, REMEDY) : Ok(found);
}

// ---- who looks after it

bool HasVariable(const std::string& environment, const std::string& name) {
    return environment.starts_with(name + "=") || environment.find('\0' + name + "=") != std::string::npos;
}

Finding CheckService(const Subject& subject) {
    const auto environment = subject.machine.Read(FileOf(subject, "environ"));
    if (!environment) {
        return Warning("not known: the daemon's environment cannot be read", "call corvalentctl doctor as root");
    }
    if (!HasVariable(*environment, "NOTIFY_SOCKET")) {
        return Warning("not started by a service manager: nobody starts it again when it ends",
                       "run it as a service (Type=notify, Restart=always)");
    }
    return HasVariable(*environment, "WATCHDOG_USEC")
               ? Ok("started by a service manager, with a watchdog")
               : Warning("started by a service manager, without a watchdog: a daemon that hangs is not restarted",
                         "set WatchdogSec= in the service");
}

} // namespace

int Subject::DaemonPid() const {
    return JsonUtils::GetIntValue(status, "pid", 0);
}

Checks DaemonChecks(const Subject& subject) {
    Checks checks = {{"daemon", CheckRunning}};
    if (subject.HasDaemon()) {
        checks.insert(checks.end(), {{"its socket", CheckSocket},
                                     {"its version", CheckProgram},
                                     {"its rights", CheckDaemonRights},
                                     {"its open files", CheckOpenFiles},
                                     {"its service", CheckService}});
        for (const Namespace& wanted : NAMESPACES) {
            checks.push_back({std::string("its ") + wanted.kind + " namespace",
                              [&wanted](const Subject& examined) { return CheckNamespace(examined, wanted); }});
        }
    }
    return checks;
}

} // namespace Ctl::Doctor
