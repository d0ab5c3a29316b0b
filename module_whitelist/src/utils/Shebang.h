#pragma once

#include <string>

namespace utils::shebang {

// The interpreter that the kernel would start in place of the file: the first word behind "#!", as
// execve(2) reads it. Empty for a file without one and for a file that cannot be read.
std::string ReadInterpreter(const std::string& path);

} // namespace utils::shebang
