#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t allocations = 0;
thread_local bool refused = false;

// Throws where there is no memory for it.
void Count() {
    ++allocations;
    if (refused) {
        throw std::bad_alloc();
    }
}

} // namespace

std::uint64_t TestSupport::AllocationsSoFar() {
    return allocations;
}

TestSupport::NoMemory::NoMemory() {
    refused = true;
}

TestSupport::NoMemory::~NoMemory() {
    refused = false;
}

// The other forms of new end in these two.
void* operator new(std::size_t size) {
    Count();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    Count();
    const std::size_t boundary = static_cast<std::size_t>(alignment);
    if (void* memory = std::aligned_alloc(boundary, (size + boundary - 1) / boundary * boundary)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
    std::free(memory);
}
