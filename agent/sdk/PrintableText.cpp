#include "sdk/PrintableText.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "agent/sdk/Hex.h"

namespace SDK {

namespace {

struct Character {
    std::uint32_t code = 0;
    std::size_t length = 0; // 0: no valid UTF-8 here
};

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

// The UTF-8 character (RFC 3629) that begins at `position`.
Character ReadCharacter(const std::string& text, std::size_t position) {
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
    return code < SMALLEST[length] || surrogate || code > 0x10FFFFU ? Character{} : Character{code, length};
}

// Control characters, and what changes the direction of text or takes no place.
bool IsHarmful(std::uint32_t code) {
    return code < 0x20U || (code >= 0x7FU && code < 0xA0U) || (code >= 0x200BU && code <= 0x200FU) ||
           (code >= 0x2028U && code <= 0x202EU) || (code >= 0x2060U && code <= 0x206FU) || code == 0xFEFFU;
}

std::string EscapeByte(char byte) {
    switch (byte) {
    case '\n':
        return "\\n";
    case '\t':
        return "\\t";
    case '\r':
        return "\\r";
    default:
        break;
    }
    const auto value = static_cast<unsigned char>(byte);
    return "\\x" + ToHex(&value, 1);
}

} // namespace

std::string PrintableText::Escape(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const Character character = ReadCharacter(text, i);
        const std::size_t length = std::max<std::size_t>(character.length, 1);
        if (character.length == 0 || IsHarmful(character.code)) {
            for (std::size_t j = i; j < i + length; ++j) {
                escaped += EscapeByte(text[j]);
            }
        } else {
            escaped += text[i] == '\\' ? "\\\\" : text.substr(i, length);
        }
        i += length;
    }
    return escaped;
}

} // namespace SDK
