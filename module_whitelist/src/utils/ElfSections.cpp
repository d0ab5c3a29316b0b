#include "utils/ElfSections.h"

#include <array>
#include <cstring>

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

namespace utils::elf {

namespace {

// A descriptor that is closed on every path out of its scope.
class OpenFile {
public:
    // Non-blocking, so that a FIFO in the place of an image holds nobody up.
    explicit OpenFile(const std::string& path) : mFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~OpenFile() {
        if (mFd >= 0) {
            close(mFd);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool IsOpen() const { return mFd >= 0; }

    // Reads up to `size` bytes at `offset`; what the file does not have stays as it was.
    std::size_t ReadAt(std::uint64_t offset, void* buffer, std::size_t size) const {
        const ssize_t count = pread(mFd, buffer, size, static_cast<off_t>(offset));
        return count < 0 ? 0 : static_cast<std::size_t>(count);
    }

private:
    int mFd;
};

bool HasSection(const OpenFile& file, const Elf64_Ehdr& header, std::uint32_t sectionType) {
    for (std::uint64_t i = 0; i < header.e_shnum; ++i) {
        Elf64_Shdr section{};
        if (file.ReadAt(header.e_shoff + i * sizeof(section), &section, sizeof(section)) != sizeof(section)) {
            return false;
        }
        if (section.sh_type == sectionType) {
            return true;
        }
    }
    return false;
}

} // namespace

SectionSearch FindSectionOfType(const std::string& path, std::uint32_t sectionType) {
    const OpenFile file(path);
    if (!file.IsOpen()) {
        return SectionSearch::CannotOpen;
    }
    Elf64_Ehdr header{};
    file.ReadAt(0, &header, sizeof(header));
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        return SectionSearch::NotElf;
    }
    if (header.e_ehsize != sizeof(header)) {
        return SectionSearch::BadHeaderSize;
    }
    return HasSection(file, header, sectionType) ? SectionSearch::Found : SectionSearch::NotFound;
}

} // namespace utils::elf
