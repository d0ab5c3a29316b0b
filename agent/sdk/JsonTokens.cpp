#include "agent/sdk/JsonTokens.h"

#include <cstdint>
#include <cstring>

namespace SDK {

namespace {

// Eight bytes of text at a time, whatever their order: strings are most of a list of 10 MiB. Each byte's highest bit
// tells of it; what carries into the byte above can only be wrong where there is a right one below.
constexpr std::uint64_t EACH_BYTE = 0x0101010101010101U;
constexpr std::uint64_t HIGHEST_BITS = 0x80 * EACH_BYTE;

constexpr std::uint64_t BytesBelow(std::uint64_t bytes, std::uint64_t limit) {
    return (bytes - limit * EACH_BYTE) & ~bytes & HIGHEST_BITS;
}

constexpr std::uint64_t BytesEqual(std::uint64_t bytes, char c) {
    return BytesBelow(bytes ^ (static_cast<unsigned char>(c) * EACH_BYTE), 1);
}

// Whether the byte ends a string, escapes the next, or may not be in a string.
bool IsSpecial(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

// Whether one of eight is such a byte.
bool HoldsSpecial(const char* text) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text, sizeof bytes);
    return (BytesBelow(bytes, 0x20) | BytesEqual(bytes, '"') | BytesEqual(bytes, '\\')) != 0;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsWhiteSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool IsNumberByte(char c) {
    return IsDigit(c) || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

// A "+" and a "." begin none that is allowed, but jsoncpp takes them for one.
bool BeginsNumber(char c) {
    return IsDigit(c) || c == '-' || c == '+' || c == '.';
}

// Walks over a text; past the end it sees NUL bytes.
class Scanner {
public:
    Scanner(const char* text, std::size_t length) : mNext(text), mEnd(text + length) {}

    bool AtEnd() const { return mNext == mEnd; }
    const char* Position() const { return mNext; }
    char Peek() const { return AtEnd() ? '\0' : *mNext; }
    void Skip() {
        if (!AtEnd()) {
            ++mNext;
        }
    }

    // The rest of a string whose opening quote has been taken.
    bool TakeString() {
        while (!AtEnd()) {
            SkipPlainText();
            const char c = Peek();
            if (static_cast<unsigned char>(c) < 0x20) {
                return false;
            }
            ++mNext;
            if (c == '"') {
                return true;
            }
            if (c == '\\') {
                Skip();
            }
        }
        return false;
    }

    // number = [ "-" ] ( "0" / digit1-9 *DIGIT ) [ "." 1*DIGIT ] [ ("e" / "E") [ "+" / "-" ] 1*DIGIT ]
    bool TakeNumber() {
        TakeOneOf("-");
        if (!TakeOneOf("0") && !TakeDigits()) {
            return false;
        }
        if (TakeOneOf(".") && !TakeDigits()) {
            return false;
        }
        if (TakeOneOf("eE")) {
            TakeOneOf("+-");
            if (!TakeDigits()) {
                return false;
            }
        }
        return !IsNumberByte(Peek());
    }

private:
    // Of a string: by eights, and what is left.
    void SkipPlainText() {
        while (static_cast<std::size_t>(mEnd - mNext) >= sizeof(std::uint64_t) && !HoldsSpecial(mNext)) {
            mNext += sizeof(std::uint64_t);
        }
        while (!AtEnd() && !IsSpecial(*mNext)) {
            ++mNext;
        }
    }

    bool TakeOneOf(const char* choices) {
        for (; *choices != '\0'; ++choices) {
            if (!AtEnd() && *mNext == *choices) {
                ++mNext;
                return true;
            }
        }
        return false;
    }

    bool TakeDigits() {
        const char* const first = mNext;
        while (IsDigit(Peek())) {
            ++mNext;
        }
        return mNext != first;
    }

    const char* mNext;
    const char* const mEnd;
};

} // namespace

std::optional<BadJsonToken> FindBadJsonToken(const char* text, std::size_t length) {
    Scanner scanner(text, length);
    const auto bad = [&](const char* reason) {
        return BadJsonToken{static_cast<std::size_t>(scanner.Position() - text), reason};
    };
    char before = '\0'; // of what is no white space
    while (!scanner.AtEnd()) {
        const char c = scanner.Peek();
        if (c == '}' && before == ',') {
            return bad("a comma behind the last member");
        }
        if (!IsWhiteSpace(c)) {
            before = c;
        }
        if (c == '\0') {
            return bad("a NUL byte");
        }
        if (BeginsNumber(c)) {
            if (!scanner.TakeNumber()) {
                return bad("a number that is not written as JSON has it");
            }
            continue;
        }
        if (c == '/') {
            return bad("a comment");
        }
        scanner.Skip();
        if (c == '"' && !scanner.TakeString()) {
            return bad(scanner.AtEnd() ? "a string without its closing quote" : "a control character in a string");
        }
    }
    return std::nullopt;
}

} // namespace SDK
