#pragma once

#include <string>
#include <vector>

namespace ShellTest {

// The CPU governor, and the count of CPU ticks, of a program that FakeGovernor.cpp is part of. Off,
// with no tick used, until it is told otherwise.
class FakeGovernor {
public:
    struct Adjustment {
        std::string file;
        int line = 0;
        std::string who;
        unsigned long now = 0;
        unsigned long elapsed = 0;

        bool operator==(const Adjustment&) const = default;
    };

    static void Enable(unsigned long suggestedTicks);
    static void SetTick(unsigned long tick);

    // How often the ticks were asked for.
    static unsigned long CountReads();

    // The adjustments that were asked for from this source file and line, oldest first.
    static std::vector<Adjustment> AdjustmentsAt(const std::string& file, int line);
    static std::vector<Adjustment> AllAdjustments();
};

} // namespace ShellTest
