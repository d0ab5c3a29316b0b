#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Ctl::Preset {

// One line on standard error that is drawn anew as the work goes on, and is gone at its end. Nothing is
// drawn unless standard error is a terminal.
class ProgressBar {
public:
    // `what` is short; `total` is in `unit`s of so many steps each: ("digests", 5 << 20, "MiB", 1 << 20).
    struct Unit {
        const char* name;
        std::uint64_t steps;
    };
    ProgressBar(const char* what, std::uint64_t total, Unit unit);
    ~ProgressBar();
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    // Any thread.
    void Advance(std::uint64_t steps) { mDone.fetch_add(steps, std::memory_order_relaxed); }

    void Draw() const;

    // The line as it would be drawn: "digests  [######--------------]  31 %  1 of 3 MiB".
    std::string Describe() const;

private:
    const char* const mWhat;
    const std::uint64_t mTotal;
    const Unit mUnit;
    const bool mOnTerminal;
    std::atomic<std::uint64_t> mDone{0};
};

} // namespace Ctl::Preset
