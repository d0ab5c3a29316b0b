#pragma once

#include <cstddef>
#include <optional>

namespace SDK {

// A token that JSON does not have.
struct BadJsonToken {
    std::size_t offset = 0; // of the byte that spoils it
    const char* reason = "";
};

// Checks those rules of RFC 8259 for single tokens that jsoncpp's strict mode lets pass: a string
// holds no unescaped control characters, a number has no leading zeros and digits on both sides of
// its point and after its exponent's sign, nothing is a comment, no NUL byte ends the document early, no comma
// stands behind an object's last member (jsoncpp lets it pass where that member's name is empty). The first that breaks
// one of them, if any.
//
// None says nothing about how the tokens are put together; that is the parser's part.
std::optional<BadJsonToken> FindBadJsonToken(const char* text, std::size_t length);

} // namespace SDK
