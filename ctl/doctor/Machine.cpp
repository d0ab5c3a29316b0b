#include "ctl/doctor/Machine.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <linux/capability.h>
#include <sys/fanotify.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <unistd.h>

#include "agent/filenotify/FanotifyGroup.h"
#include "agent/process_collect/ProcConnector.h"
#include "agent/sdk/FileDescriptor.h"

namespace Ctl::Doctor {

namespace {

std::string TryProcConnector() {
    std::string problem;
    Engine::ProcConnector connector;
    return connector.Open(problem) ? "" : problem;
}

// A mark for notification only, gone at the end of the call: nobody waits for it.
std::string TryFanotify() {
    std::string problem;
    Engine::FanotifyGroup group;
    if (!group.Open(problem)) {
        return problem;
    }
    constexpr std::uint64_t WATCHED = FAN_OPEN | FAN_MODIFY | FAN_EVENT_ON_CHILD;
    const int error = group.Mark(Engine::FanotifyGroup::Object::Directory, "/", WATCHED);
    return error == 0 ? "" : std::string("a directory cannot be marked: ") + std::strerror(error);
}

bool HasFanotifyFileErrors() {
    std::string problem;
    Engine::FanotifyGroup group;
    return group.Open(problem) && group.ReportsFileErrors();
}

std::string TryPidfd() {
    // By number, as the agent does.
    const SDK::FileDescriptor self(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)));
    if (self.IsOpen() && syscall(SYS_pidfd_send_signal, self.Get(), 0, nullptr, 0) == 0) {
        return "";
    }
    return std::strerror(errno);
}

int MeasureSpace(const std::string& folder, Space& space) {
    struct statvfs found {};
    if (statvfs(folder.c_str(), &found) != 0) {
        return errno;
    }
    space.freeBytes = std::uint64_t{found.f_bavail} * found.f_frsize;
    space.totalBytes = std::uint64_t{found.f_blocks} * found.f_frsize;
    space.freeInodes = found.f_favail;
    space.totalInodes = found.f_files;
    space.readOnly = (found.f_flag & ST_RDONLY) != 0;
    return 0;
}

Clock ReadClock() {
    timex state{}; // no mode: only read
    const int result = adjtimex(&state);
    const bool synchronised = result >= 0 && result != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
    return {std::time(nullptr), synchronised};
}

// A blank, tab, newline or backslash in a path is written as \ and three octal digits there.
std::string Unescape(const std::string& text) {
    constexpr std::size_t DIGITS = 3;
    constexpr int OCTAL = 8;
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        int code = 0;
        const char* begin = text.data() + i + 1;
        if (text[i] == '\\' && i + DIGITS < text.size() &&
            std::from_chars(begin, begin + DIGITS, code, OCTAL).ptr == begin + DIGITS) {
            plain += static_cast<char>(code);
            i += DIGITS;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

} // namespace

Machine Machine::Real() {
    Machine machine;
    machine.tryProcConnector = TryProcConnector;
    machine.tryFanotify = TryFanotify;
    machine.tryPidfd = TryPidfd;
    machine.hasFanotifyFileErrors = HasFanotifyFileErrors;
    machine.measureSpace = MeasureSpace;
    machine.readClock = ReadClock;
    return machine;
}

std::optional<std::string> Machine::Read(const std::string& name) const {
    std::ifstream file(proc + name, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::string text(std::istreambuf_iterator<char>(file), {});
    return file.bad() ? std::nullopt : std::optional(text);
}

std::optional<std::int64_t> Machine::ReadNumber(const std::string& name) const {
    const std::string text = Read(name).value_or("");
    std::int64_t number = 0;
    const bool read = std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc();
    return read ? std::optional(number) : std::nullopt;
}

std::string Machine::ReadLink(const std::string& name) const {
    std::error_code error;
    return std::filesystem::read_symlink(proc + name, error).string();
}

std::vector<Mount> ReadMounts(const Machine& machine) {
    std::vector<Mount> mounts;
    std::istringstream text(machine.Read("self/mountinfo").value_or(""));
    for (std::string line; std::getline(text, line);) {
        // proc(5): ID PARENT DEVICE ROOT POINT OPTIONS [OPTIONAL...] - TYPE SOURCE SUPER-OPTIONS
        std::istringstream fields(line);
        std::string skipped;
        std::string point;
        std::string options;
        fields >> skipped >> skipped >> skipped >> skipped >> point >> options;
        while (fields >> skipped && skipped != "-") {
        }
        std::string type;
        std::string superOptions;
        if (fields >> type >> skipped >> superOptions) {
            mounts.push_back({Unescape(point), type, options.append(",").append(superOptions)});
        }
    }
    return mounts;
}

std::string FindCgroupMount(const Machine& machine) {
    for (const Mount& mount : ReadMounts(machine)) {
        if (mount.type == "cgroup2") {
            return mount.point;
        }
    }
    return "";
}

const std::vector<Capability>& AgentCapabilities() {
    using Need = Capability::Need;
    static const std::vector<Capability> ALL = {
        {CAP_NET_ADMIN, "CAP_NET_ADMIN", "to hear of process starts", Need::ALWAYS},
        {CAP_SYS_PTRACE, "CAP_SYS_PTRACE", "to see which image others' processes run", Need::ALWAYS},
        {CAP_DAC_READ_SEARCH, "CAP_DAC_READ_SEARCH", "to read images that are not its own", Need::ALWAYS},
        {CAP_KILL, "CAP_KILL", "to kill others' processes", Need::TO_BLOCK},
        {CAP_FOWNER, "CAP_FOWNER", "to make others' files not executable", Need::TO_BLOCK},
        {CAP_SYS_ADMIN, "CAP_SYS_ADMIN", "to watch files", Need::FOR_DIRECTORIES},
    };
    return ALL;
}

std::optional<std::uint64_t> ReadCapabilities(const Machine& machine, const std::string& process) {
    constexpr int HEXADECIMAL = 16;
    const std::string text = machine.Read(process + "/status").value_or("");
    static const std::string KEY = "\nCapEff:\t";
    const std::size_t place = text.find(KEY);
    if (place == std::string::npos) {
        return std::nullopt;
    }
    std::uint64_t bits = 0;
    const char* begin = text.data() + place + KEY.size();
    const bool read = std::from_chars(begin, text.data() + text.size(), bits, HEXADECIMAL).ec == std::errc();
    return read ? std::optional(bits) : std::nullopt;
}

} // namespace Ctl::Doctor
