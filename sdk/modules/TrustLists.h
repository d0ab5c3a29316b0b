#pragma once

#include <cstdint>

namespace Engine {

// What whoever makes trust lists for the module has to keep to: no list file that is larger is loaded,
// and the digest of a program covers no more than so many bytes from its start.
inline constexpr std::uint64_t TRUST_MAX_FILE_BYTES = 10485760;

} // namespace Engine
