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
#include "sdk/PrintableText.h"

namespace Ctl {

namespace {

bool IsContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
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
    return SDK::PrintableText::Escape(text);
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
