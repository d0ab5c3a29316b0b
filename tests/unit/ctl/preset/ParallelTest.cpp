#include "ctl/preset/Parallel.h"

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ctl/Failure.h"
#include "ctl/Interrupts.h"

namespace Ctl::Preset {
namespace {

const auto NOTHING = [] {};

TEST(ParallelTest, EveryPieceIsDoneOnce) {
    for (const unsigned threads : {0U, 1U, 3U, 16U}) {
        std::vector<std::atomic<int>> done(1000);
        ForEach(
            done.size(), threads, [&](std::size_t i) { ++done[i]; }, NOTHING);
        for (const auto& times : done) {
            EXPECT_EQ(times, 1);
        }
    }
    ForEach(
        0, 4, [](std::size_t) { FAIL(); }, NOTHING);
}

TEST(ParallelTest, TheCallerLooksOnMeanwhileAndAtTheEnd) {
    std::atomic<bool> seen{false};
    int looks = 0;
    ForEach(
        1, 1,
        [&](std::size_t) {
            while (!seen) {
                std::this_thread::yield();
            }
        },
        [&] {
            ++looks;
            seen = true;
        });
    EXPECT_GE(looks, 2);
}

TEST(ParallelTest, WhatThePiecesThrowComesOut) {
    EXPECT_THROW(ForEach(
                     100, 4,
                     [](std::size_t i) {
                         if (i == 50) {
                             throw std::runtime_error("fifty");
                         }
                     },
                     NOTHING),
                 std::runtime_error);
}

TEST(ParallelTest, AnInterruptEndsItEarly) {
    const Interrupts interrupts;
    std::atomic<std::size_t> done{0};
    EXPECT_THROW(ForEach(
                     1000000, 2,
                     [&](std::size_t) {
                         if (++done == 10) {
                             std::raise(SIGINT);
                         }
                     },
                     NOTHING),
                 Failure);
    EXPECT_LT(done, 1000000U);
}

} // namespace
} // namespace Ctl::Preset
