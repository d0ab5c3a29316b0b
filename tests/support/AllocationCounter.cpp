#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t allocations = 0;

} // namespace

std::uint64_t TestSupport::AllocationsSoFar() {
    return allocations;
}

// The other forms of new end in these two.
void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    ++allocations;
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
