#pragma once

#include <cstddef>

namespace SDK {

// Checks those rules of RFC 8259 for single tokens that jsoncpp's strict mode lets pass: a string
// holds no unescaped control characters, a number has no leading zeros and digits on both sides of
// its point and after its exponent's sign, no NUL byte ends the document early.
//
// True says nothing about how the tokens are put together; that is the parser's part.
bool HasStrictJsonTokens(const char* text, std::size_t length);

} // namespace SDK
