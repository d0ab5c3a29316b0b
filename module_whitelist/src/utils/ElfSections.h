#pragma once

#include <cstdint>
#include <string>

// A reader of 64-bit ELF section headers (elf(5), <elf.h>). It reads no more than the file header and
// the section headers, believes nothing in them, and works on the bytes of the file alone.
namespace utils::elf {

enum class SectionSearch {
    CannotOpen,
    NotElf,        // the file does not begin with the ELF magic
    BadHeaderSize, // the ELF header is not that of a 64-bit file
    NotFound,
    Found,
};

// Looks for a section header of type `sectionType` (sh_type) in the image that the thread holds under this path
// (SDK::ProcessImage), or else in the file at the path.
SectionSearch FindSectionOfType(const std::string& path, std::uint32_t sectionType);

} // namespace utils::elf
