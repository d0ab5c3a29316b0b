#include "agent/sdk/CommandLine.h"

#include <cstddef>

namespace SDK {

namespace {

constexpr char NO_QUOTE = '\0';

} // namespace

bool SplitCommandLine(const std::string& command, std::vector<std::string>& words) {
    words.clear();
    std::string word;
    bool inWord = false;
    char quote = NO_QUOTE;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        const bool opensQuote = quote == NO_QUOTE && (c == '\'' || c == '"');
        if (c == ' ' && quote == NO_QUOTE) {
            if (inWord) {
                words.push_back(word);
            }
            word.clear();
            inWord = false;
            continue;
        }
        inWord = true;
        if (opensQuote) {
            quote = c;
        } else if (quote != NO_QUOTE && c == quote) {
            quote = NO_QUOTE;
        } else if (c == '\\' && quote != '\'' && i + 1 < command.size()) {
            word += command[++i];
        } else {
            word += c;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    if (quote != NO_QUOTE) {
        words.clear();
    }
    return !words.empty();
}

} // namespace SDK
