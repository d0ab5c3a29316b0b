#include "agent/process_collect/EventMerge.h"

#include <algorithm>

namespace Engine {

namespace {

bool IsOlder(const ProcEvent& left, const ProcEvent& right) {
    return left.timestampNs < right.timestampNs;
}

} // namespace

void EventMerge::Merge(std::uint64_t begunNs, std::vector<ProcEvent>& execs, std::vector<ProcEvent>& others,
                       std::vector<ProcEvent>& events) {
    std::uint64_t untilNs = begunNs;
    for (const ProcEvent& exec : execs) {
        untilNs = std::max(untilNs, exec.timestampNs);
    }
    mKept.insert(mKept.end(), others.begin(), others.end());
    const auto kept = std::stable_partition(mKept.begin(), mKept.end(),
                                            [&](const ProcEvent& event) { return event.timestampNs <= untilNs; });
    const auto first = static_cast<std::ptrdiff_t>(events.size());
    events.insert(events.end(), mKept.begin(), kept);
    events.insert(events.end(), execs.begin(), execs.end());
    std::stable_sort(events.begin() + first, events.end(), IsOlder);
    mKept.erase(mKept.begin(), kept);
    execs.clear();
    others.clear();
}

} // namespace Engine
