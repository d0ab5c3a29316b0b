#include "utils/ElfSections.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sdk/ProcessImage.h"

namespace utils::elf {

namespace {

// A descriptor that is closed on every path out of its scope.
class OpenFile {
public:
    OpenFile(const std::string& path, int flags) : mFd(open(path.c_str(), flags | O_CLOEXEC)) {}
    ~OpenFile() {
        if (mFd >= 0) {
            close(mFd);
        }
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    bool IsOpen() const { return mFd >= 0; }
    int Get() const { return mFd; }

    bool IsDevice() const {
        struct stat info {};
        return fstat(mFd, &info) == 0 && (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode));
    }

    // A name of the very file that is open.
    std::string Link() const { return "/proc/self/fd/" + std::to_string(mFd); }

private:
    int mFd;
};

// Reads up to `size` bytes at `offset`; what the file does not have stays as it was.
std::size_t ReadAt(int file, std::uint64_t offset, void* buffer, std::size_t size) {
    const ssize_t count = pread(file, buffer, size, static_cast<off_t>(offset));
    return count < 0 ? 0 : static_cast<std::size_t>(count);
}

// Reads many headers at a time: images have some thirty.
bool HasSection(int file, const Elf64_Ehdr& header, std::uint32_t sectionType) {
    std::array<Elf64_Shdr, 64> sections; // NOLINT(*-member-init): read fills what is used
    for (std::size_t done = 0; done < header.e_shnum;) {
        const std::size_t wanted = std::min<std::size_t>(sections.size(), header.e_shnum - done);
        const std::size_t size =
            ReadAt(file, header.e_shoff + done * sizeof(Elf64_Shdr), sections.data(), wanted * sizeof(Elf64_Shdr));
        const std::size_t whole = size / sizeof(Elf64_Shdr);
        const auto headers = std::span(sections).first(whole);
        if (std::any_of(headers.begin(), headers.end(),
                        [&](const auto& each) { return each.sh_type == sectionType; })) {
            return true;
        }
        if (whole < wanted) {
            return false;
        }
        done += whole;
    }
    return false;
}

SectionSearch Search(int file, std::uint32_t sectionType) {
    if (file < 0) {
        return SectionSearch::CannotOpen;
    }
    Elf64_Ehdr header{};
    ReadAt(file, 0, &header, sizeof(header));
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
        return SectionSearch::NotElf;
    }
    if (header.e_ehsize != sizeof(header)) {
        return SectionSearch::BadHeaderSize;
    }
    return HasSection(file, header, sectionType) ? SectionSearch::Found : SectionSearch::NotFound;
}

} // namespace

SectionSearch FindSectionOfType(const std::string& path, std::uint32_t sectionType) {
    if (const SDK::ProcessImage* image = SDK::ProcessImage::At(path)) {
        return Search(image->GetFd(), sectionType);
    }
    // Looked at first, without opening it: who may name an image may put a link in its place, and some devices
    // (a watchdog, a tape) act when they are opened.
    const OpenFile place(path, O_PATH);
    if (place.IsOpen() && place.IsDevice()) {
        return SectionSearch::NotElf;
    }
    // Non-blocking, so that a FIFO in the place of an image holds nobody up.
    const OpenFile file(place.IsOpen() ? place.Link() : path, O_RDONLY | O_NONBLOCK);
    return Search(file.Get(), sectionType);
}

} // namespace utils::elf
