#include "sdk/StrUtils.h"

namespace SDK {

std::string StrUtils::Trim(const std::string& text) {
    static const char* const WHITE_SPACE = " \t\n\v\f\r";
    const std::string::size_type first = text.find_first_not_of(WHITE_SPACE);
    if (first == std::string::npos) {
        return "";
    }
    const std::string::size_type last = text.find_last_not_of(WHITE_SPACE);
    return text.substr(first, last - first + 1);
}

std::vector<std::string> StrUtils::EasySplit(const std::string& text, const std::string& separators) {
    std::vector<std::string> pieces;
    std::string::size_type begin = text.find_first_not_of(separators);
    while (begin != std::string::npos) {
        const std::string::size_type end = text.find_first_of(separators, begin);
        pieces.push_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(separators, end);
    }
    return pieces;
}

} // namespace SDK
