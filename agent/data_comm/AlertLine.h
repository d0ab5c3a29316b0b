#pragma once

#include <string>

namespace Engine {

// An alert as the one line that a person reads and greps for in the log:
//
//   ALERT untrusted program /path pid 123 user joe sha256 HEX not blocked event UUID cmdline TEXT
//
// "blocked" in place of "not blocked" when the program was isolated. The user is the id in decimal where
// the alert names nobody; "-" stands for what the alert does not say. A word with a blank or a quote is
// put in quotes, quotes in it doubled, so that nobody who names a file can write a word of the line; what
// could end the line or is not UTF-8 is escaped where the line is written, as in every record. A command
// line, the last and only member with blanks, is cut after MAX_CMDLINE_BYTES, marked by "..."; the history
// has all of it.
constexpr std::size_t MAX_CMDLINE_BYTES = 512;

// `document` is the alert as it was sent. One that cannot be read gives a line that says so.
std::string FormatAlertLine(const std::string& document);

} // namespace Engine
