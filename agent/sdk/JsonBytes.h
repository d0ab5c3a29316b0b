#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace SDK {

// Bytes that are not UTF-8 in a text of JSON, which has to be UTF-8 (RFC 8259): each byte 0xNN of them is
// written as the escape \udcNN. Alone, that is half of a surrogate pair and stands for no character, so
// nothing else is ever written so, and what a name's bytes were can be told for certain.

// The JSON text with such bytes escaped. They may stand in strings only.
std::string EscapeBytes(std::string json);

// The JSON text with the bytes in place of their escapes; nothing when there is no such escape.
std::optional<std::string> RestoreBytes(std::string_view json);

} // namespace SDK
