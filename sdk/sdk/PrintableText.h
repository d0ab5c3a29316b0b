#pragma once

#include <string>

namespace SDK {

// Text from outside made fit for a terminal and for a line of a log.
class PrintableText {
public:
    // The text with whatever could end the line, steer a terminal or hide what is there made visible:
    // control characters, bytes that are not UTF-8 and directional marks as \n, \t, \r or \xNN, a
    // backslash as \\. Every text reads back unambiguously.
    static std::string Escape(const std::string& text);
};

} // namespace SDK
