// Splitting a command line into words (SDK::SplitCommandLine), which decides what is executed.

#include <string>
#include <vector>

#include "agent/sdk/CommandLine.h"
#include "fuzz/Fuzz.h"

namespace {

using Words = std::vector<std::string>;

// The rules of CommandLine.h once more, a word at a time.
class Model {
public:
    explicit Model(const std::string& command) : mRest(command) {}

    bool Split(Words& words) {
        while (SkipBlanks()) {
            std::string word;
            if (!TakeWord(word)) {
                words.clear();
                return false;
            }
            words.push_back(word);
        }
        return !words.empty();
    }

private:
    bool SkipBlanks() {
        mRest.erase(0, std::min(mRest.find_first_not_of(' '), mRest.size()));
        return !mRest.empty();
    }

    char TakeByte() {
        const char byte = mRest.front();
        mRest.erase(0, 1);
        return byte;
    }

    bool TakeWord(std::string& word) {
        while (!mRest.empty() && mRest.front() != ' ') {
            const char byte = TakeByte();
            if (byte == '\'' || byte == '"') {
                if (!TakeQuoted(byte, word)) {
                    return false;
                }
            } else {
                word += byte == '\\' && !mRest.empty() ? TakeByte() : byte;
            }
        }
        return true;
    }

    bool TakeQuoted(char quote, std::string& word) {
        while (!mRest.empty()) {
            const char byte = TakeByte();
            if (byte == quote) {
                return true;
            }
            word += byte == '\\' && quote == '"' && !mRest.empty() ? TakeByte() : byte;
        }
        return false;
    }

    std::string mRest;
};

std::string Show(const Words& words) {
    std::string text;
    for (const std::string& word : words) {
        text += "[" + word + "]";
    }
    return text;
}

std::string InSingleQuotes(const std::string& word) {
    std::string quoted = "'";
    for (const char c : word) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

std::string InDoubleQuotes(const std::string& word) {
    std::string quoted = "\"";
    for (const char c : word) {
        quoted += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return quoted + "\"";
}

std::string Escaped(const std::string& word) {
    std::string escaped = word.empty() ? "''" : "";
    for (const char c : word) {
        escaped += std::string("\\") + c;
    }
    return escaped;
}

template <typename Quote> void RequireSurvival(const Words& words, const Quote& quote) {
    std::string joined;
    for (const std::string& word : words) {
        joined += quote(word) + " ";
    }
    Words again;
    Fuzz::Require(SDK::SplitCommandLine(joined, again) && again == words, "joined words are the same words again",
                  joined + " gave " + Show(again));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    const std::string command = Fuzz::ToText(data, size);
    Words words{"left", "over"};
    const bool split = SDK::SplitCommandLine(command, words);
    Words expected;
    const bool expectedSplit = Model(command).Split(expected);
    Fuzz::Require(split == expectedSplit && words == expected, "the words are those of the rules",
                  Show(words) + " instead of " + Show(expected));
    Fuzz::Require(split == !words.empty(), "there are words exactly when the line could be split");
    if (split) {
        RequireSurvival(words, InSingleQuotes);
        RequireSurvival(words, InDoubleQuotes);
        RequireSurvival(words, Escaped);
    }
    return 0;
}
