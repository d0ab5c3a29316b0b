#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <json/value.h>

namespace SDK {

// JSON as jsoncpp values. No operation throws, whatever the document holds.
//
// The Get… accessors return `fallback` when `object` is not a JSON object, when it has no member
// `key`, and when that member is of another type or out of the result's range.
class JsonUtils {
public:
    // Parses exactly `length` bytes of `text` as one strict JSON document (RFC 8259) whose root is
    // an object or an array: no comments, no trailing text, no repeated keys. One UTF-8 byte order mark
    // at its beginning is passed over. Returns 0 and sets `value` on success; -1 otherwise, `value`
    // untouched.
    static int ParseJsonStr(const char* text, std::size_t length, Json::Value& value);
    static int ParseJsonStr(const std::string& text, Json::Value& value);

    // Where a text stops being a JSON document: line and column, in bytes behind a byte order mark, count
    // from 1; 0 when that cannot be told.
    struct Fault {
        std::size_t line = 0;
        std::size_t column = 0;
        std::string reason;
    };
    // The same, setting `fault` when it returns -1.
    static int ParseJsonStr(const std::string& text, Json::Value& value, Fault& fault);

    // Copies the member `key`, of whatever type, into `out`. False, `out` untouched, when `object`
    // is not an object or has no such member.
    static bool GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out);

    static std::string GetStringValue(const Json::Value& object, const char* key, const std::string& fallback);
    static int GetIntValue(const Json::Value& object, const char* key, int fallback);
    static std::int64_t GetInt64Value(const Json::Value& object, const char* key, std::int64_t fallback);
    static bool GetBoolValue(const Json::Value& object, const char* key, bool fallback);

    // True when the member `key` of the object is an array.
    static bool IsArrayValue(const Json::Value& object, const char* key);

    // The value as one line of JSON without a trailing newline. Members come in byte order of their
    // keys (jsoncpp keeps objects sorted). The line is valid UTF-8 whatever the values hold: control
    // characters and quotes are escaped, and each byte 0xNN that is no part of valid UTF-8 is written as
    // \udcNN, half of a surrogate pair, which no text that is UTF-8 has. ParseJsonStr reads that as the
    // byte again, so that a path comes back unchanged; so does whoever decodes as Python's
    // "surrogateescape" does.
    static std::string JsonToString(const Json::Value& value);
};

} // namespace SDK
