#pragma once

#include <string>

// State files that a start could not load.
namespace utils::unloaded_file {

// Why the list document in the file cannot be loaded, in a few words; "" for a file that is missing or empty,
// which is a list without entries.
std::string ExplainList(const std::string& path);

// Keeps the file as PATH.unloaded, so that the one that will take its place does not destroy it. Only the
// latest is kept. What became of it, in a few words.
std::string Keep(const std::string& path);

} // namespace utils::unloaded_file
