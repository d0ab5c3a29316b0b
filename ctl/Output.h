#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

namespace Ctl {

// How the verbs write for people and for programs. Everything goes to standard output.

// The text with whatever could steer a terminal or hide what is there made visible: control
// characters, bytes that are not UTF-8 and directional marks as \n, \t or \xNN, a backslash as \\.
std::string Escape(const std::string& text);

// Local time, "2026-01-31 23:59:59".
std::string FormatTime(std::int64_t seconds);

// "3 d 4 h", "5 min", "12 s": the two greatest units at most.
std::string FormatDuration(std::int64_t seconds);

enum class Colour { PLAIN, RED, GREEN, YELLOW };

// The text in that colour when standard output is a terminal and NO_COLOR is not set, otherwise as it
// is.
std::string Paint(const std::string& text, Colour colour);

// The text filled up with blanks to `width` places on the screen.
std::string Pad(const std::string& text, std::size_t width);

// One line for each row, columns aligned, none wider than it has to be. The first row is the heading.
// Fields are escaped by whoever made them.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

// The value on a line of its own.
void PrintJson(const Json::Value& value);

void PrintLine(const std::string& line);

// The text as it is, lines and all.
void PrintText(const std::string& text);

// Makes sure that what was printed has left the program. Throws Failure when it cannot be written.
void FlushOutput();

// A member as text: a string as it is, a number or flag as JSON writes it, "-" for null or none.
std::string FieldText(const Json::Value& object, const char* key);

// The same, escaped.
std::string Field(const Json::Value& object, const char* key);

// A copy of the member; null when there is none.
Json::Value Member(const Json::Value& object, const char* key);

// "1 alert", "2 alerts", for nouns that form their plural so.
std::string Count(std::size_t number, const std::string& noun);

} // namespace Ctl
