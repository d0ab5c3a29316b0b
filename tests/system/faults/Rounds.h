#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

// How long, and how, the tests that repeat themselves go on.
namespace SystemTest {

// A whole number from the environment.
inline std::uint64_t ReadNumber(const char* variable, std::uint64_t otherwise) {
    const char* text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

// CORVALENT_FAULT_ROUNDS is how many rounds there are in all, of which a test takes its share.
inline int CountRounds(int percent) {
    constexpr std::uint64_t ALL_ROUNDS = 200;
    constexpr int WHOLE = 100;
    const auto all = static_cast<int>(ReadNumber("CORVALENT_FAULT_ROUNDS", ALL_ROUNDS));
    return std::max(all * percent / WHOLE, 1);
}

// Random numbers that can be had again: the seed is printed, and CORVALENT_FAULT_SEED sets it.
class Dice {
public:
    Dice() : mSeed(ReadNumber("CORVALENT_FAULT_SEED", std::random_device()())), mNumbers(mSeed) {
        std::cout << "CORVALENT_FAULT_SEED=" << mSeed << std::endl;
    }

    // One of 0 to `most`.
    std::int64_t Upto(std::int64_t most) { return std::uniform_int_distribution<std::int64_t>(0, most)(mNumbers); }

private:
    const std::uint64_t mSeed;
    std::mt19937_64 mNumbers;
};

} // namespace SystemTest
