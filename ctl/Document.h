#pragma once

#include <string>

namespace Ctl {

// The whole text of the file, of standard input for "-". Throws Failure when it cannot be read or is
// larger than the daemon takes (64 MiB).
std::string ReadDocument(const std::string& file);

// Makes the file, which must not be there yet, with the text. Throws Failure, leaving no file behind,
// when it cannot.
void WriteNewDocument(const std::string& file, const std::string& text);

} // namespace Ctl
