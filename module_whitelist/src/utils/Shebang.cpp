#include "utils/Shebang.h"

#include <array>
#include <fstream>

namespace utils::shebang {

namespace {

// BINPRM_BUF_SIZE of <linux/binfmts.h>: the kernel looks at no more of a file.
constexpr std::size_t HEAD_BYTES = 256;

constexpr const char* BLANKS = " \t";

} // namespace

std::string ReadInterpreter(const std::string& path) {
    std::array<char, HEAD_BYTES> head{};
    std::ifstream file(path, std::ios::binary);
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    std::string line(head.data(), static_cast<std::size_t>(file.gcount()));
    if (!line.starts_with("#!")) {
        return "";
    }
    line = line.substr(2, line.find_first_of(std::string("\n\0", 2)) - 2);
    const std::size_t first = line.find_first_not_of(BLANKS);
    return first == std::string::npos ? "" : line.substr(first, line.find_first_of(BLANKS, first) - first);
}

} // namespace utils::shebang
