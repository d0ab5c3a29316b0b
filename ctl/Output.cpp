#include "ctl/Output.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include <unistd.h>

#include "ctl/Failure.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

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
    std::array<char, 5> escaped{};
    std::snprintf(escaped.data(), escaped.size(), "\\x%02x", static_cast<unsigned char>(byte));
    return escaped.data();
}

std::size_t WidthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return !IsContinuation(static_cast<unsigned char>(byte)); }));
}

bool IsColoured() {
    static const bool coloured = isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    return coloured;
}

} // namespace

std::string Escape(const std::string& text) {
    std::string escaped;
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

std::string FormatTime(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    if (localtime_r(&time, &parts) == nullptr) {
        return std::to_string(seconds);
    }
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

std::string FormatDuration(std::int64_t seconds) {
    struct Unit {
        std::int64_t seconds;
        const char* name;
    };
    static constexpr std::array<Unit, 4> UNITS = {{{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}}};
    const auto* first =
        std::find_if(UNITS.begin(), UNITS.end() - 1, [&](const Unit& unit) { return seconds >= unit.seconds; });
    std::string text = std::to_string(seconds / first->seconds) + first->name;
    const auto* second = first + 1;
    if (second != UNITS.end() && seconds % first->seconds >= second->seconds) {
        text += " " + std::to_string(seconds % first->seconds / second->seconds) + second->name;
    }
    return text;
}

std::string Paint(const std::string& text, Colour colour) {
    if (!IsColoured() || colour == Colour::PLAIN) {
        return text;
    }
    // ECMA-48, Select Graphic Rendition.
    const char* code = colour == Colour::RED ? "31" : colour == Colour::GREEN ? "32" : "33";
    return std::string("\033[") + code + "m" + text + "\033[0m";
}

std::string Pad(const std::string& text, std::size_t width) {
    const std::size_t used = WidthOf(text);
    return used < width ? text + std::string(width - used, ' ') : text;
}

void PrintTable(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], WidthOf(row[i]));
        }
    }
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            // Nothing is filled up behind the last column.
            line += i + 1 < row.size() ? Pad(row[i], widths[i]) + "  " : row[i];
        }
        PrintLine(line);
    }
}

void PrintJson(const Json::Value& value) {
    PrintLine(SDK::JsonUtils::JsonToString(value));
}

void PrintLine(const std::string& line) {
    std::cout << line << '\n';
}

void PrintText(const std::string& text) {
    std::cout << text;
}

void FlushOutput() {
    if (!std::cout.flush()) {
        throw Failure("standard output cannot be written");
    }
}

std::string FieldText(const Json::Value& object, const char* key) {
    Json::Value value;
    if (!SDK::JsonUtils::GetSubobjectValue(object, key, value) || value.isNull()) {
        return "-";
    }
    return value.isString() ? value.asString() : SDK::JsonUtils::JsonToString(value);
}

std::string Field(const Json::Value& object, const char* key) {
    return Escape(FieldText(object, key));
}

Json::Value Member(const Json::Value& object, const char* key) {
    Json::Value member;
    SDK::JsonUtils::GetSubobjectValue(object, key, member);
    return member;
}

std::string Count(std::size_t number, const std::string& noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

} // namespace Ctl
