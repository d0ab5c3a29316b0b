#pragma once

#include <cstdint>

namespace ShellTest {

// The wall clock of a program that FakeClock.cpp is part of: it stands still until it is set.
class FakeClock {
public:
    static void Set(std::int64_t seconds);
    static void Advance(std::int64_t seconds);
    static std::int64_t Now();
};

} // namespace ShellTest
