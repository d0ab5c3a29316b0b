#pragma once

#include <cstdint>

namespace TestSupport {

// How often the calling thread has called operator new, which a program that AllocationCounter.cpp is part of
// replaces to count.
std::uint64_t AllocationsSoFar();

} // namespace TestSupport
