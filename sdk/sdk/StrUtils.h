#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    // The text without the white space (C locale: blank, \t, \n, \v, \f, \r) at both ends.
    static std::string Trim(const std::string& text);

    // The pieces of `text` between occurrences of any byte of `separators`, in order. Empty pieces
    // are dropped, so a run of separators counts as one.
    static std::vector<std::string> EasySplit(const std::string& text, const std::string& separators);
};

} // namespace SDK
