#pragma once

#include <cstddef>
#include <functional>
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

using TakeEntry = std::function<void(const Json::Value& entry)>;

// Reads the entries out of exactly `length` bytes and calls `take` with each, in their order. What was
// taken is the list with Shape::List; otherwise it is to be dropped, if there is any.
//
// A document that holds nothing else, and no lists within its entries, as those that agents and servers
// write, is read an entry at a time: memory is needed for one, not for all.
Shape Read(const char* text, std::size_t length, const TakeEntry& take);

// True, `entries` set to the array, when `document` holds one under `key`.
bool TakeList(const Json::Value& document, const char* key, Json::Value& entries);

// A document of these entries (an array) or, where a report speaks of one process, of this one entry
// (an object), as text.
std::string ToText(const Json::Value& entries);

// Puts the text of a document together, the bytes that ToText makes of all the entries at once.
class ListWriter {
public:
    // Adds the entries (an array) behind those that are there.
    void Append(const Json::Value& entries);

    // Ends the document; the writer is used up.
    std::string Finish();

private:
    std::string mText;
};

} // namespace utils::list_document
