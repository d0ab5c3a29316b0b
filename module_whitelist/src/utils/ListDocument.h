#pragma once

#include <cstddef>
#include <string>

#include <json/value.h>

// The list document, the one form in which trust lists are stored and sent:
//
//     {"process_info": [ENTRY, ENTRY, …]}
namespace utils::list_document {

enum class Shape {
    NotJson, // the text is not a JSON document
    NoList,  // it is, but holds no such array
    List,
};

// Reads the entries out of exactly `length` bytes; `entries` is set only with Shape::List.
Shape Parse(const char* text, std::size_t length, Json::Value& entries);

// True, `entries` set to the array, when `document` holds one under `key`.
bool TakeList(const Json::Value& document, const char* key, Json::Value& entries);

// A document of these entries (an array) or, where a report speaks of one process, of this one entry
// (an object), as text.
std::string ToText(const Json::Value& entries);

} // namespace utils::list_document
