#include "ctl/preset/ProgressBar.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include "support/WaitFor.h"

namespace Ctl::Preset {
namespace {

constexpr std::uint64_t MIB = 1U << 20U;

TEST(ProgressBarTest, SaysHowMuchIsDone) {
    ProgressBar bar("digests", 3 * MIB, {"MiB", MIB});
    EXPECT_EQ(bar.Describe(), "digests  [------------------------------] 0 %  0 of 3 MiB");
    bar.Advance(MIB);
    EXPECT_EQ(bar.Describe(), "digests  [##########--------------------] 33 %  1 of 3 MiB");
    bar.Advance(5 * MIB);
    EXPECT_EQ(bar.Describe(), "digests  [##############################] 100 %  3 of 3 MiB");
    EXPECT_EQ(ProgressBar("files", 0, {"files", 1}).Describe(),
              "files  [##############################] 100 %  0 of 0 files");
}

// What is written to standard error while it is `target`.
class StandardError {
public:
    explicit StandardError(int target) : mOld(dup(STDERR_FILENO)) { dup2(target, STDERR_FILENO); }
    ~StandardError() {
        dup2(mOld, STDERR_FILENO);
        close(mOld);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

private:
    int mOld;
};

std::string DrawTo(int target) {
    const StandardError redirected(target);
    const ProgressBar bar("files", 1, {"files", 1});
    bar.Draw();
    return bar.Describe();
}

// What was written to a terminal arrives at its other end bit by bit: waits for so many bytes.
std::string ReadFrom(int terminal, std::size_t size) {
    std::string shown;
    EXPECT_EQ(fcntl(terminal, F_SETFL, O_NONBLOCK), 0);
    TestSupport::WaitFor([&] {
        std::array<char, 4096> piece{};
        const ssize_t count = read(terminal, piece.data(), piece.size());
        shown.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return shown.size() >= size;
    });
    return shown;
}

TEST(ProgressBarTest, IsDrawnOnATerminalAndGoneAtTheEnd) {
    int terminal = -1;
    int program = -1;
    ASSERT_EQ(openpty(&terminal, &program, nullptr, nullptr, nullptr), 0);
    const std::string expected = "\r\033[K" + DrawTo(program) + "\r\033[K";
    EXPECT_EQ(ReadFrom(terminal, expected.size()), expected);
    close(terminal);
    close(program);
}

TEST(ProgressBarTest, NothingIsDrawnElsewhere) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    DrawTo(ends[1]);
    close(ends[1]);
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);
    close(ends[0]);
}

} // namespace
} // namespace Ctl::Preset
