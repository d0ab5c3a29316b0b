#pragma once

#include <cstddef>

namespace ShellTest {

// The allocator of a program that RefusingAllocator.cpp is part of has no memory for this thread's
// requests of exactly that size and form while one lives.
class Refusing {
public:
    enum class Form { Throwing, NonThrowing };

    Refusing(Form form, std::size_t size);
    ~Refusing();
    Refusing(const Refusing&) = delete;
    Refusing& operator=(const Refusing&) = delete;
};

} // namespace ShellTest
