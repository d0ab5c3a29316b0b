#include "ctl/preset/ProgressBar.h"

#include <algorithm>
#include <iostream>

#include <unistd.h>

namespace Ctl::Preset {

namespace {

// ECMA-48: erase in line.
constexpr const char* BACK_TO_EMPTY_LINE = "\r\033[K";

constexpr std::uint64_t PLACES = 30;
constexpr std::uint64_t PERCENT = 100;

} // namespace

ProgressBar::ProgressBar(const char* what, std::uint64_t total, Unit unit)
    : mWhat(what), mTotal(total), mUnit(unit), mOnTerminal(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    if (mOnTerminal) {
        std::cerr << BACK_TO_EMPTY_LINE << std::flush;
    }
}

void ProgressBar::Draw() const {
    if (mOnTerminal) {
        std::cerr << BACK_TO_EMPTY_LINE << Describe() << std::flush;
    }
}

std::string ProgressBar::Describe() const {
    const std::uint64_t total = std::max<std::uint64_t>(mTotal, 1);
    const std::uint64_t done = mTotal == 0 ? total : std::min(mDone.load(std::memory_order_relaxed), total);
    const std::size_t filled = done * PLACES / total;
    return std::string(mWhat) + "  [" + std::string(filled, '#') + std::string(PLACES - filled, '-') + "] " +
           std::to_string(done * PERCENT / total) + " %  " + std::to_string(std::min(done, mTotal) / mUnit.steps) +
           " of " + std::to_string(mTotal / mUnit.steps) + " " + mUnit.name;
}

} // namespace Ctl::Preset
