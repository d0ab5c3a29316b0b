#pragma once

#include <algorithm>

namespace Engine {

// The shorter of two times as poll(2) takes them: milliseconds, a negative one for ever.
inline int ShorterTimeout(int leftMs, int rightMs) {
    return leftMs < 0 || rightMs < 0 ? std::max(leftMs, rightMs) : std::min(leftMs, rightMs);
}

} // namespace Engine
