#pragma once

#include <cstdint>

namespace TestSupport {

// How often the calling thread has called operator new, which a program that AllocationCounter.cpp is part of
// replaces to count.
std::uint64_t AllocationsSoFar();

// While one lives, there is no memory for what the thread that made it asks of operator new.
class NoMemory {
public:
    NoMemory();
    ~NoMemory();
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
};

} // namespace TestSupport
