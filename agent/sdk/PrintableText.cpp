#include "sdk/PrintableText.h"

#include <algorithm>
#include <cstdint>

#include "agent/sdk/Hex.h"
#include "agent/sdk/Utf8.h"

namespace SDK {

namespace {

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
        const Utf8Character character = ReadUtf8(text, i);
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
