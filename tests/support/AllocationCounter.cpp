#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local std::uint64_t allocations = 0;
thread_local bool refused = false;

// False where there is no memory for it.
bool Count() {
    ++allocations;
    return !refused;
}

void* Allocate(std::size_t size) {
    return Count() ? std::malloc(size == 0 ? 1 : size) : nullptr;
}

void* Allocate(std::size_t size, std::align_val_t alignment) {
    const std::size_t boundary = static_cast<std::size_t>(alignment);
    return Count() ? std::aligned_alloc(boundary, (size + boundary - 1) / boundary * boundary) : nullptr;
}

void* OrThrow(void* memory) {
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
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

// Also those that do not throw, in which the library's end: a sanitizer brings its own in their place, and reports
// what they gave and the delete below frees.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Allocate(size);
}

void* operator new(std::size_t size) {
    return OrThrow(Allocate(size));
}

void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t& /*tag*/) noexcept {
    return Allocate(size, alignment);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    return OrThrow(Allocate(size, alignment));
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
