#include "ctl/preset/ExecutableFile.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "modules/TrustLists.h"
#include "sdk/FileUtils.h"

namespace Ctl::Preset {

namespace {

// The bytes that tell: e_ident and e_type, which both classes of ELF files have at the same place.
constexpr std::size_t HEAD_BYTES = EI_NIDENT + sizeof(Elf64_Half);
using Head = std::array<char, HEAD_BYTES>;

bool MayBeExecuted(const struct stat& info) {
    return S_ISREG(info.st_mode) && (info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

bool IsElfProgram(const Head& head) {
    const bool bigEndian = head[EI_DATA] == ELFDATA2MSB;
    const auto low = static_cast<unsigned char>(head[EI_NIDENT + (bigEndian ? 1 : 0)]);
    const auto high = static_cast<unsigned char>(head[EI_NIDENT + (bigEndian ? 0 : 1)]);
    const unsigned type = low | static_cast<unsigned>(high) << 8U;
    return type == ET_EXEC || type == ET_DYN;
}

bool IsExecutable(std::string_view begin, const Head& head) {
    constexpr std::string_view SCRIPT_MAGIC = "#!";
    constexpr std::string_view ELF_MAGIC(ELFMAG, SELFMAG);
    return begin.starts_with(SCRIPT_MAGIC) ||
           (begin.size() == HEAD_BYTES && begin.starts_with(ELF_MAGIC) && IsElfProgram(head));
}

FileLook Fail(int error) {
    const bool absent = error == ENOENT || error == ENOTDIR;
    return {absent ? FileLook::ABSENT : FileLook::UNREADABLE, error, 0};
}

} // namespace

FileLook LookAt(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        return Fail(errno);
    }
    if (!MayBeExecuted(info)) {
        return {};
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return Fail(errno);
    }
    Head head{};
    const ssize_t count = pread(fd, head.data(), head.size(), 0);
    const int error = errno;
    close(fd);
    if (count < 0) {
        return Fail(error);
    }
    const bool executable = IsExecutable({head.data(), static_cast<std::size_t>(count)}, head);
    return {executable ? FileLook::EXECUTABLE : FileLook::OTHER, 0, static_cast<std::uint64_t>(info.st_size)};
}

int DigestProgram(const std::string& path, std::string& sha256) {
    return SDK::FileUtils::GetFileSha256(path, sha256, Engine::TRUST_MAX_FILE_BYTES);
}

} // namespace Ctl::Preset
