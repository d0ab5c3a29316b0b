#include "agent/process_collect/ForkHold.h"

#include <algorithm>

namespace Engine {

void ForkHold::Hold(const ProcEvent& fork, Clock::time_point now) {
    Take(fork.pid);
    mForks.push_back({fork, now + HOLD_TIME});
    mByChild[fork.pid] = std::prev(mForks.end());
}

std::optional<ProcEvent> ForkHold::Take(int child) {
    const auto found = mByChild.find(child);
    if (found == mByChild.end()) {
        return std::nullopt;
    }
    const ProcEvent fork = found->second->fork;
    mForks.erase(found->second);
    mByChild.erase(found);
    return fork;
}

std::vector<ProcEvent> ForkHold::TakeDue(Clock::time_point now) {
    std::vector<ProcEvent> due;
    while (!mForks.empty() && mForks.front().due <= now) {
        due.push_back(mForks.front().fork);
        mByChild.erase(mForks.front().fork.pid);
        mForks.pop_front();
    }
    return due;
}

int ForkHold::GetTimeoutMs(Clock::time_point now) const {
    if (mForks.empty()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(mForks.front().due - now);
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

} // namespace Engine
