#include "RefusingAllocator.h"

#include <cstdlib>
#include <new>

namespace ShellTest {

namespace {

thread_local Refusing::Form refusedForm = Refusing::Form::Throwing;
thread_local std::size_t refusedSize = 0;

void* Allocate(Refusing::Form form, std::size_t size) {
    const bool isRefused = size != 0 && size == refusedSize && form == refusedForm;
    return isRefused ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
    void* memory = Allocate(Refusing::Form::Throwing, size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

Refusing::Refusing(Form form, std::size_t size) {
    refusedForm = form;
    refusedSize = size;
}

Refusing::~Refusing() {
    refusedSize = 0;
}

} // namespace ShellTest

void* operator new(std::size_t size) {
    return ShellTest::AllocateOrThrow(size);
}

void* operator new[](std::size_t size) {
    return ShellTest::AllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return ShellTest::Allocate(ShellTest::Refusing::Form::NonThrowing, size);
}

void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return ShellTest::Allocate(ShellTest::Refusing::Form::NonThrowing, size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
