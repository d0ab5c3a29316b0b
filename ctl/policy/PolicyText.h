#pragma once

#include <string>

namespace Ctl {

// The text without its comments, which JSON does not have: whatever stands behind "//", outside a
// string, to the end of the line. All else stays, also each byte's line and column, so a text without
// comments is unchanged.
std::string StripComments(const std::string& text);

// A policy document from a file or, for "-", standard input, ready to be parsed or delivered. Throws
// Failure when it cannot be read.
std::string ReadPolicy(const std::string& file);

} // namespace Ctl
