#pragma once

#include <string>
#include <vector>

#include <json/value.h>

namespace Ctl::Preset {

// An entry of a preset list. Only the digest decides; the rest tells people what it is the digest of.
struct Entry {
    std::string filename; // the path as the kernel reports it
    std::string sha256;   // 64 lowercase hexadecimal digits
    std::string os;
    std::string version;
};

// The preset list document of the entries, in their order:
//
//     {"process_info": [{"filename", "os", "sha256", "version"}, …]}
//
// Throws Failure when it is larger than an agent loads; the text says what to do.
std::string ToDocument(const std::vector<Entry>& entries);

// The entries of a preset document, checked as an agent does not check it: every entry is an object
// whose "sha256" is a digest and whose other members are strings, or missing. `name` is what the
// document is called. Throws Failure with the first thing that is wrong.
std::vector<Entry> FromDocument(const std::string& text, const std::string& name);

// The text of a preset document in a file. Throws Failure when it cannot be read or is larger than an
// agent loads.
std::string ReadPresetFile(const std::string& file);

} // namespace Ctl::Preset
