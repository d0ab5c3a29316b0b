#pragma once

#include <vector>

namespace Engine {

// The pids in /proc now, the kernel's own threads among them, in no particular order. Empty when /proc
// cannot be read.
std::vector<int> ListPids();

} // namespace Engine
