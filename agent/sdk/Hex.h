#pragma once

#include <cstddef>
#include <string>

namespace SDK {

// The bytes as lowercase hexadecimal text, two characters a byte.
inline std::string ToHex(const unsigned char* bytes, std::size_t length) {
    static const char* const DIGITS = "0123456789abcdef";
    std::string text;
    text.reserve(length * 2);
    for (std::size_t i = 0; i < length; ++i) {
        text += DIGITS[bytes[i] >> 4];
        text += DIGITS[bytes[i] & 0x0F];
    }
    return text;
}

} // namespace SDK
