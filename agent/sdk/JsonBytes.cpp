#include "agent/sdk/JsonBytes.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "agent/sdk/Hex.h"
#include "agent/sdk/Utf8.h"

namespace SDK {

namespace {

constexpr std::size_t ESCAPE_LENGTH = 6; // \uXXXX

bool IsAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80U;
}

// How many bytes from there on are valid UTF-8.
std::size_t MeasureValid(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size()) {
        const auto rest = text.substr(length);
        length += static_cast<std::size_t>(std::find_if_not(rest.begin(), rest.end(), IsAscii) - rest.begin());
        if (length == text.size()) {
            break;
        }
        const Utf8Character character = ReadUtf8(text, length);
        if (character.length == 0) {
            break;
        }
        length += character.length;
    }
    return length;
}

// What the escape at the beginning of the text stands for; nothing when there is none of the form \uXXXX.
std::optional<std::uint32_t> ReadEscape(std::string_view text) {
    constexpr std::size_t DIGITS_AT = 2;
    constexpr int BASE = 16;
    if (text.size() < ESCAPE_LENGTH || !text.starts_with("\\u")) {
        return std::nullopt;
    }
    std::uint32_t code = 0;
    const char* end = text.data() + ESCAPE_LENGTH;
    const auto [stop, error] = std::from_chars(text.data() + DIGITS_AT, end, code, BASE);
    return error == std::errc() && stop == end ? std::optional(code) : std::nullopt;
}

bool IsFirstHalf(std::uint32_t code) {
    return code >= 0xD800U && code <= 0xDBFFU;
}

bool StandsForByte(std::uint32_t code) {
    return code >= 0xDC80U && code <= 0xDCFFU;
}

// Copies the escape sequence at the beginning of the text, or the byte that it stands for. How long it was.
std::size_t TakeEscape(std::string_view text, std::string& restored) {
    const std::optional<std::uint32_t> code = ReadEscape(text);
    if (code && StandsForByte(*code)) {
        restored += static_cast<char>(*code & 0xFFU);
        return ESCAPE_LENGTH;
    }
    // The second half of a pair belongs to the first.
    const bool pair = code && IsFirstHalf(*code) && ReadEscape(text.substr(ESCAPE_LENGTH));
    const std::size_t wanted = pair ? 2 * ESCAPE_LENGTH : 2;
    const std::size_t length = std::min(wanted, text.size());
    restored.append(text, 0, length);
    return length;
}

bool MayHoldEscapes(std::string_view json) {
    for (std::size_t at = json.find("\\u"); at != std::string_view::npos; at = json.find("\\u", at + 2)) {
        const std::optional<std::uint32_t> code = ReadEscape(json.substr(at));
        if (code && StandsForByte(*code)) {
            return true;
        }
    }
    return false;
}

} // namespace

std::string EscapeBytes(std::string json) {
    std::size_t valid = MeasureValid(json);
    if (valid == json.size()) {
        return json;
    }
    std::string escaped;
    std::string_view rest = json;
    while (!rest.empty()) {
        valid = MeasureValid(rest);
        escaped.append(rest, 0, valid);
        rest.remove_prefix(valid);
        if (!rest.empty()) {
            const auto byte = static_cast<unsigned char>(rest.front());
            escaped += "\\udc" + ToHex(&byte, 1);
            rest.remove_prefix(1);
        }
    }
    return escaped;
}

std::optional<std::string> RestoreBytes(std::string_view json) {
    if (!MayHoldEscapes(json)) {
        return std::nullopt;
    }
    std::string restored;
    restored.reserve(json.size());
    while (!json.empty()) {
        const std::size_t plain = std::min(json.find('\\'), json.size());
        restored.append(json, 0, plain);
        json.remove_prefix(plain);
        if (!json.empty()) {
            json.remove_prefix(TakeEscape(json, restored));
        }
    }
    return restored;
}

} // namespace SDK
