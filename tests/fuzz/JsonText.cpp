// JSON as everything that comes from outside is read, and as everything is written (SDK::JsonUtils).

#include <cmath>
#include <set>
#include <string>

#include "fuzz/Fuzz.h"
#include "sdk/JsonUtils.h"

namespace {

using SDK::JsonUtils;

// RFC 8259 once more, as its grammar has it. Throws nothing; every Take… is false at what is not there.
class Grammar {
public:
    explicit Grammar(const std::string& text) : mText(text) {}

    // One document whose root is an object or an array, without repeated keys. Behind a byte order mark, if
    // there is one: a reader may pass over it.
    bool IsDocument() {
        Take("\xEF\xBB\xBF");
        SkipSpace();
        return (Peek() == '{' || Peek() == '[') && TakeValue(0) && (SkipSpace(), mAt == mText.size());
    }

    // Not nested so deeply, and without what other readers of JSON may refuse as well: numbers beyond a double,
    // a half of a surrogate pair.
    bool IsOrdinary() const { return mDepth < ORDINARY_DEPTH && mOrdinary; }

private:
    static constexpr int ORDINARY_DEPTH = 500;
    static constexpr int MAX_DEPTH = 2000;

    char Peek() const { return mAt < mText.size() ? mText[mAt] : '\0'; }

    void SkipSpace() { mAt = std::min(mText.find_first_not_of(" \t\n\r", mAt), mText.size()); }

    bool Take(const std::string& token) {
        if (mText.compare(mAt, token.size(), token) != 0) {
            return false;
        }
        mAt += token.size();
        return true;
    }

    bool TakeValue(int depth) {
        mDepth = std::max(mDepth, depth);
        if (depth > MAX_DEPTH) {
            return false;
        }
        std::string ignored;
        switch (Peek()) {
        case '{':
            return TakeObject(depth);
        case '[':
            return TakeArray(depth);
        case '"':
            return TakeString(ignored);
        default:
            return Take("true") || Take("false") || Take("null") || TakeNumber();
        }
    }

    bool TakeObject(int depth) {
        std::set<std::string> keys;
        ++mAt;
        SkipSpace();
        if (Take("}")) {
            return true;
        }
        do {
            std::string key;
            SkipSpace();
            if (!TakeString(key) || !keys.insert(key).second) {
                return false;
            }
            SkipSpace();
            if (!Take(":") || (SkipSpace(), !TakeValue(depth + 1))) {
                return false;
            }
            SkipSpace();
        } while (Take(","));
        return Take("}");
    }

    bool TakeArray(int depth) {
        ++mAt;
        SkipSpace();
        if (Take("]")) {
            return true;
        }
        do {
            SkipSpace();
            if (!TakeValue(depth + 1)) {
                return false;
            }
            SkipSpace();
        } while (Take(","));
        return Take("]");
    }

    bool TakeHexDigits(unsigned& unit) {
        unit = 0;
        for (int i = 0; i < 4; ++i, ++mAt) {
            const std::size_t digit = std::string("0123456789abcdef").find(static_cast<char>(std::tolower(Peek())));
            if (Peek() == '\0' || digit == std::string::npos) {
                return false;
            }
            unit = unit * 16 + static_cast<unsigned>(digit);
        }
        return true;
    }

    // Behind "\u". The text is only for keys to be compared by.
    bool TakeCodePoint(std::string& text) {
        unsigned unit = 0;
        if (!TakeHexDigits(unit)) {
            return false;
        }
        if (unit >= 0xD800 && unit < 0xE000) {
            unsigned second = 0;
            const bool isPair =
                unit < 0xDC00 && Take("\\u") && TakeHexDigits(second) && second >= 0xDC00 && second < 0xE000;
            mOrdinary = mOrdinary && isPair;
            unit = 0x10000 + ((unit & 0x3FFU) << 10U) + (second & 0x3FFU);
        }
        AppendUtf8(unit, text);
        return true;
    }

    static void AppendUtf8(unsigned point, std::string& text) {
        const auto add = [&](unsigned byte) { text += static_cast<char>(byte); };
        if (point < 0x80) {
            add(point);
        } else if (point < 0x800) {
            add(0xC0 | point >> 6U);
            add(0x80 | (point & 0x3FU));
        } else if (point < 0x10000) {
            add(0xE0 | point >> 12U);
            add(0x80 | (point >> 6U & 0x3FU));
            add(0x80 | (point & 0x3FU));
        } else {
            add(0xF0 | point >> 18U);
            add(0x80 | (point >> 12U & 0x3FU));
            add(0x80 | (point >> 6U & 0x3FU));
            add(0x80 | (point & 0x3FU));
        }
    }

    bool TakeString(std::string& text) {
        if (!Take("\"")) {
            return false;
        }
        while (mAt < mText.size() && Peek() != '"') {
            const char c = Peek();
            if (static_cast<unsigned char>(c) < 0x20) {
                return false;
            }
            ++mAt;
            if (c != '\\') {
                text += c;
            } else if (!TakeEscape(text)) {
                return false;
            }
        }
        return Take("\"");
    }

    bool TakeEscape(std::string& text) {
        const std::string names = "\"\\/bfnrt";
        const std::string meanings = "\"\\/\b\f\n\r\t";
        const char c = Peek();
        ++mAt;
        if (c == 'u') {
            return TakeCodePoint(text);
        }
        const std::size_t which = c == '\0' ? std::string::npos : names.find(c);
        if (which == std::string::npos) {
            return false;
        }
        text += meanings[which];
        return true;
    }

    bool TakeDigits() {
        const std::size_t begin = mAt;
        mAt = std::min(mText.find_first_not_of("0123456789", mAt), mText.size());
        return mAt != begin;
    }

    bool TakeNumber() {
        const std::size_t begin = mAt;
        Take("-");
        if (!Take("0") && !TakeDigits()) {
            return false;
        }
        if (Take(".") && !TakeDigits()) {
            return false;
        }
        if (Take("e") || Take("E")) {
            static_cast<void>(Take("+") || Take("-"));
            if (!TakeDigits()) {
                return false;
            }
        }
        const double value = std::strtod(mText.substr(begin, mAt - begin).c_str(), nullptr);
        mOrdinary = mOrdinary && (std::isnormal(value) || value == 0);
        return true;
    }

    const std::string& mText;
    std::size_t mAt = 0;
    int mDepth = 0;
    bool mOrdinary = true;
};

void CheckFault(const std::string& text, bool accepted) {
    Json::Value value;
    JsonUtils::Fault fault;
    Fuzz::Require((JsonUtils::ParseJsonStr(text, value, fault) == 0) == accepted,
                  "who asks for the reason gets the same answer");
    if (!accepted) {
        Fuzz::Require(!fault.reason.empty() && fault.reason.find('\n') == std::string::npos,
                      "a fault has a reason of one line", fault.reason);
        const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
        // jsoncpp counts a carriage return as an end of line, too.
        const auto returns = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\r'));
        Fuzz::Require(fault.line <= lines + returns + 1 && fault.column <= text.size() + 1,
                      "a fault lies within the text");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    const std::string text = Fuzz::ToText(data, size);
    Json::Value value = "untouched";
    const bool accepted = JsonUtils::ParseJsonStr(text, value) == 0;
    Grammar grammar(text);
    const bool isJson = grammar.IsDocument();
    Fuzz::Require(isJson || !accepted, "only JSON is taken for JSON");
    Fuzz::Require(!isJson || !grammar.IsOrdinary() || accepted, "JSON is taken for JSON");
    CheckFault(text, accepted);
    if (!accepted) {
        Fuzz::Require(value == "untouched", "a text that is refused leaves the value alone");
        return 0;
    }
    const std::string written = JsonUtils::JsonToString(value);
    Fuzz::Require(
        std::none_of(written.begin(), written.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }),
        "a document is written as one line without control characters", written);
    Json::Value again;
    Fuzz::Require(JsonUtils::ParseJsonStr(written, again) == 0, "what is written can be read", written);
    Fuzz::Require(again == value && JsonUtils::JsonToString(again) == written, "and is the same", written);
    return 0;
}
