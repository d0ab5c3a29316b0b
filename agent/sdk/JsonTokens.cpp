#include "agent/sdk/JsonTokens.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <endian.h>

namespace SDK {

namespace {

// Eight bytes of text at a time, the first of them the lowest: strings are most of a list of 10 MiB. Each byte's
// highest bit tells of it; what carries into the byte above can only be wrong where there is a right one below.
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

// How many of the next eight come before such a byte.
std::size_t CountPlain(const char* text) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text, sizeof bytes);
    bytes = le64toh(bytes);
    const std::uint64_t special = BytesBelow(bytes, 0x20) | BytesEqual(bytes, '"') | BytesEqual(bytes, '\\');
    return static_cast<std::size_t>(std::countr_zero(special)) / 8;
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsNumberByte(char c) {
    return IsDigit(c) || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

// What a byte outside of strings and numbers begins.
enum class Beginning : unsigned char { Other, WhiteSpace, String, Number, ObjectEnd, Comment, Nul };

constexpr auto BEGINNINGS = [] {
    std::array<Beginning, 256> beginnings{};
    const auto set = [&beginnings](std::string_view bytes, Beginning beginning) {
        for (const char c : bytes) {
            beginnings[static_cast<unsigned char>(c)] = beginning;
        }
    };
    set(" \t\n\r", Beginning::WhiteSpace);
    set("\"", Beginning::String);
    // A "+" and a "." begin none that is allowed, but jsoncpp takes them for one.
    set("0123456789-+.", Beginning::Number);
    set("}", Beginning::ObjectEnd);
    set("/", Beginning::Comment);
    beginnings['\0'] = Beginning::Nul;
    return beginnings;
}();

Beginning BeginningOf(char c) {
    return BEGINNINGS[static_cast<unsigned char>(c)];
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
        while (static_cast<std::size_t>(mEnd - mNext) >= sizeof(std::uint64_t)) {
            const std::size_t plain = CountPlain(mNext);
            mNext += plain;
            if (plain < sizeof(std::uint64_t)) {
                return;
            }
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
    char before = '\0'; // what the token before this one begins with
    while (!scanner.AtEnd()) {
        const char c = scanner.Peek();
        switch (BeginningOf(c)) {
        case Beginning::Nul:
            return bad("a NUL byte");
        case Beginning::Comment:
            return bad("a comment");
        case Beginning::WhiteSpace:
            scanner.Skip();
            continue;
        case Beginning::String:
            scanner.Skip();
            if (!scanner.TakeString()) {
                return bad(scanner.AtEnd() ? "a string without its closing quote" : "a control character in a string");
            }
            break;
        case Beginning::Number:
            if (!scanner.TakeNumber()) {
                return bad("a number that is not written as JSON has it");
            }
            break;
        case Beginning::ObjectEnd:
            if (before == ',') {
                return bad("a comma behind the last member");
            }
            [[fallthrough]];
        case Beginning::Other:
            scanner.Skip();
        }
        before = c;
    }
    return std::nullopt;
}

} // namespace SDK
