#pragma once

#include <string>

namespace Ctl {

// The whole text of the file, of standard input for "-". Throws Failure when it cannot be read or is
// larger than the daemon takes (64 MiB).
std::string ReadDocument(const std::string& file);

} // namespace Ctl
