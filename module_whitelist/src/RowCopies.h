#pragma once

#include <cstddef>
#include <vector>

#include "ProcessInfo.h"

namespace Engine {

// The rows of the process table that one thread has looked up last, as copies of its own: one for each
// process, the oldest of them given up for a new one.
class RowCopies {
public:
    static constexpr std::size_t CAPACITY = 64;

    RowCopies() { mRows.reserve(CAPACITY); }

    // Puts the row in the place of the process's earlier copy, if there still is one. The result is good
    // until CAPACITY other processes have been kept.
    ProcessInfo& Keep(ProcessInfo row);

private:
    ProcessInfo& PlaceOf(int pid);

    std::vector<ProcessInfo> mRows; // never grows beyond what was reserved: nothing in it moves
    std::size_t mOldest = 0;        // when it is full
};

} // namespace Engine
