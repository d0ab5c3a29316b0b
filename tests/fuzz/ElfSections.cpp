// Looking for a section in an executable file (utils::elf::FindSectionOfType): the file is anybody's.

#include <cstring>

#include <elf.h>

#include "fuzz/Fuzz.h"
#include "utils/ElfSections.h"

namespace {

using utils::elf::SectionSearch;
__extension__ using Wide = unsigned __int128;

// SHT_GNU_LIBLIST, and a type that every file has.
constexpr std::uint32_t LIBRARY_LIST = 0x6ffffff7;
constexpr std::uint32_t PROGRAM_BITS = SHT_PROGBITS;

template <typename Structure> Structure ReadAt(const std::string& file, std::size_t offset) {
    Structure structure{};
    file.copy(reinterpret_cast<char*>(&structure), sizeof structure, offset);
    return structure;
}

SectionSearch Expect(const std::string& file, std::uint32_t type) {
    if (!file.starts_with(std::string(ELFMAG, SELFMAG))) {
        return SectionSearch::NotElf;
    }
    const auto header = ReadAt<Elf64_Ehdr>(file, 0);
    if (header.e_ehsize != sizeof header) {
        return SectionSearch::BadHeaderSize;
    }
    for (unsigned i = 0; i < header.e_shnum; ++i) {
        const Wide offset = Wide{header.e_shoff} + Wide{i} * sizeof(Elf64_Shdr);
        if (offset + sizeof(Elf64_Shdr) > file.size()) {
            break;
        }
        if (ReadAt<Elf64_Shdr>(file, static_cast<std::size_t>(offset)).sh_type == type) {
            return SectionSearch::Found;
        }
    }
    return SectionSearch::NotFound;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static const TestSupport::TempDir folder(Fuzz::FolderForFiles());
    const std::string file = Fuzz::ToText(data, size);
    const std::string path = folder.Write("image", file);
    for (const std::uint32_t type : {LIBRARY_LIST, PROGRAM_BITS}) {
        Fuzz::Require(utils::elf::FindSectionOfType(path, type) == Expect(file, type),
                      "a section is found exactly when a whole header of its type is where the file says");
    }
    Fuzz::Require(utils::elf::FindSectionOfType(folder / "none", LIBRARY_LIST) == SectionSearch::CannotOpen,
                  "no file is no finding");
    return 0;
}
