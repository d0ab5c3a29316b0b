#include "sdk/ProcStat.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>

#include <fcntl.h>

#include "agent/sdk/FileDescriptor.h"
#include "sdk/Shortage.h"

namespace SDK {

namespace {

// 52 numbers of at most 20 digits and a name of at most 64 bytes.
constexpr std::size_t MAX_STAT_BYTES = 2048;

// The number of the first field behind the name, and of the last that is asked for.
constexpr std::size_t FIRST_FIELD = 3;
constexpr std::size_t LAST_FIELD = 28;

using Fields = std::array<std::string_view, LAST_FIELD + 1>;

// Splits the text at its blanks. The name (field 2) is in parentheses and may hold blanks and
// parentheses itself, so that only its last ")" ends it.
bool Split(std::string_view text, Fields& fields) {
    const std::size_t nameEnd = text.rfind(") ");
    if (nameEnd == std::string_view::npos) {
        return false;
    }
    text.remove_prefix(nameEnd + 2);
    for (std::size_t field = FIRST_FIELD; field < fields.size(); ++field) {
        const std::size_t end = text.find_first_of(" \n");
        fields[field] = text.substr(0, end);
        if (fields[field].empty() || (end == std::string_view::npos && field < LAST_FIELD)) {
            return false;
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return true;
}

template <typename Number> bool ReadNumber(std::string_view text, Number& number) {
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && parsed == end;
}

} // namespace

bool ProcStat::Parse(std::string_view text, ProcStat& stat) {
    Fields fields;
    ProcStat read;
    if (!Split(text, fields) || fields[3].size() != 1 || !ReadNumber(fields[4], read.ppid) ||
        !ReadNumber(fields[9], read.flags) || !ReadNumber(fields[14], read.userTicks) ||
        !ReadNumber(fields[15], read.kernelTicks) || !ReadNumber(fields[20], read.threads) ||
        !ReadNumber(fields[22], read.startTime) || !ReadNumber(fields[23], read.virtualBytes) ||
        !ReadNumber(fields[24], read.residentPages) || !ReadNumber(fields[28], read.startStack)) {
        return false;
    }
    read.state = fields[3].front();
    stat = read;
    return true;
}

int ProcStat::Read(int pid, ProcStat& stat) {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const FileDescriptor file(open(path.data(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return Shortage::Note(errno);
    }
    std::array<char, MAX_STAT_BYTES> text{};
    const ssize_t size = ReadRetrying(file.Get(), text.data(), text.size());
    if (size < 0) {
        return errno;
    }
    return Parse(std::string_view(text.data(), static_cast<std::size_t>(size)), stat) ? 0 : EINVAL;
}

bool ProcStat::IsGone(int error) {
    return error == ENOENT || error == ESRCH;
}

} // namespace SDK
