#pragma once

#include <span>

namespace Daemon {

// What a counter of the agent counts, in the words of its metric's help.
struct CounterHelp {
    const char* name; // as Framework::Counters has it: "events.exec"
    const char* help;
};

// All counters that the agent has.
std::span<const CounterHelp> ListCounterHelp();

} // namespace Daemon
