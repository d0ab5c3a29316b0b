#include "agent/sdk/Utf8.h"

#include <array>

namespace SDK {

namespace {

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

// How many bytes a character has that begins with this one; 0 when none does.
std::size_t LengthFrom(unsigned char first) {
    if (first < 0x80U) {
        return 1;
    }
    if (first >= 0xC2U && first <= 0xDFU) {
        return 2;
    }
    if (first >= 0xE0U && first <= 0xEFU) {
        return 3;
    }
    return first >= 0xF0U && first <= 0xF4U ? 4 : 0;
}

} // namespace

Utf8Character ReadUtf8(std::string_view text, std::size_t position) {
    const auto first = static_cast<unsigned char>(text[position]);
    const std::size_t length = LengthFrom(first);
    if (length == 0 || position + length > text.size()) {
        return {};
    }
    std::uint32_t code = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[position + i]);
        if (!IsContinuation(byte)) {
            return {};
        }
        code = code << 6U | (byte & 0x3FU);
    }
    constexpr std::array<std::uint32_t, 5> SMALLEST = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800U && code <= 0xDFFFU;
    return code < SMALLEST[length] || surrogate || code > 0x10FFFFU ? Utf8Character{} : Utf8Character{code, length};
}

} // namespace SDK
