#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace TestSupport {

// How many times as long as usual everything may take; the build says so where it slows the programs down.
#ifndef TEST_PATIENCE
#define TEST_PATIENCE 1
#endif

// How long a test waits for something that should happen soon. Generous, because it only costs time
// when the test is about to fail.
constexpr std::chrono::seconds DEADLINE{20 * TEST_PATIENCE};

// The wait for a condition, one form for all tests: true as soon as `condition` holds, false when it
// still does not at the deadline.
inline bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds deadline = DEADLINE) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace TestSupport
