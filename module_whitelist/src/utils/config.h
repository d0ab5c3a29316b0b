#pragma once

#include <string>

// A small INI-style store of named values in sections.
//
//     # a comment
//     [Section]
//     Key=value
//
// Lines end with a line feed; white space at both ends of a line, of a section name, of a key and of
// a value does not count (so a CR LF file reads like an LF file). Names are compared byte for byte.
// Only "#" begins a comment, and only at the start of a line; a value may hold "=".
//
// Every call opens and reads the whole file, a set also replaces it in one step; nothing is cached.
// No lock is taken: of two writers at once one may lose its update, so callers serialise their
// writes. A file above 10 MiB cannot be updated. Nothing throws.
namespace utils::config {

// The first value of the key in the first section of that name. True and `value` set when there is
// one; `value` untouched otherwise. A null path gives false.
bool get_config_str(const char* path, const char* section, const char* key, std::string& value);

// The same, read as a decimal number from the value's start; what follows the number is ignored
// ("12abc" gives 12).
bool get_config_int(const char* path, const char* section, const char* key, int& value);

// The same; only "true" and "false", in lower case, are values.
bool get_config_bool(const char* path, const char* section, const char* key, bool& value);

// Sets the first entry of the key in the section, or adds it at the section's end, or adds the
// section at the file's end; everything else is kept, though every line loses the white space at its
// ends. A missing or empty file is created. True when the file was written; otherwise the file is as
// it was and the reason is in the log.
//
// The writer takes only a line that is exactly "[section]" for the section's header. A header with
// blanks inside the brackets or a remark behind them is found by the readers but not by the writer,
// which then adds an exact one at the end.
bool set_config_str(const char* path, const char* section, const char* key, const char* value);
bool set_config_int(const char* path, const char* section, const char* key, int value);
bool set_config_bool(const char* path, const char* section, const char* key, bool value);

} // namespace utils::config
