#pragma once

#include <string>

namespace Ctl {

// The whole text of the file, of standard input for "-". Throws Failure when it cannot be read or is
// larger than the daemon takes (64 MiB).
std::string ReadDocument(const std::string& file);

// Makes the file, which must not be there yet, with the text. Throws Failure, leaving no file behind,
// when it cannot.
void WriteNewDocument(const std::string& file, const std::string& text);

// Replaces the file in one step, mode 0600; "-" is standard output. Throws Failure when it cannot be
// written.
void WriteDocument(const std::string& file, const std::string& text);

// Throws Failure when WriteDocument would put a file in the place of something that is no regular file, a
// device for example. For those whose text takes long to make.
void CheckDestination(const std::string& file);

} // namespace Ctl
