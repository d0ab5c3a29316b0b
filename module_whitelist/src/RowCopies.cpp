#include "RowCopies.h"

#include <algorithm>
#include <utility>

namespace Engine {

ProcessInfo& RowCopies::Keep(ProcessInfo row) {
    ProcessInfo& place = PlaceOf(row.pid);
    place = std::move(row);
    return place;
}

ProcessInfo& RowCopies::PlaceOf(int pid) {
    const auto same =
        std::find_if(mRows.begin(), mRows.end(), [pid](const ProcessInfo& row) { return row.pid == pid; });
    if (same != mRows.end()) {
        return *same;
    }
    if (mRows.size() < CAPACITY) {
        return mRows.emplace_back();
    }
    ProcessInfo& oldest = mRows[mOldest];
    mOldest = (mOldest + 1) % CAPACITY;
    return oldest;
}

} // namespace Engine
