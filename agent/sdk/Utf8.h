#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace SDK {

struct Utf8Character {
    std::uint32_t code = 0;
    std::size_t length = 0; // 0: no valid UTF-8 here
};

// The UTF-8 character (RFC 3629) that begins at `position`, which is within the text.
Utf8Character ReadUtf8(std::string_view text, std::size_t position);

} // namespace SDK
