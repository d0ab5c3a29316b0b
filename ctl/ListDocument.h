#pragma once

#include <string>

#include <json/value.h>

namespace Ctl {

// The list document, the one form in which trust lists are stored and sent:
//
//     {"process_info": [ENTRY, ENTRY, …]}

// The entries in the text. `name` is what the text is called when it is complained of. Throws Failure
// when it is no such document.
Json::Value ParseListDocument(const std::string& text, const std::string& name);

// The document of these entries (an array), without a line feed at its end.
std::string ToListDocument(const Json::Value& entries);

// True for a SHA-256 as agents write it: 64 lowercase hexadecimal digits. They compare it as text.
bool IsDigest(const std::string& text);

// How an entry is named where something is said about it: "process_info[3] (ls)", with the text of the
// member `nameKey` where there is one.
std::string NameEntry(const Json::Value& entry, Json::ArrayIndex index, const char* nameKey);

} // namespace Ctl
