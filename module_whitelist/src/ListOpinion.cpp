#include "ListOpinion.h"

#include <algorithm>

namespace Engine::list_opinion {

namespace {

using Reason = ListOpinion::Reason;

bool IsSameKind(const ProcessInfo& entry, const ProcessInfo& info) {
    return entry.type == info.type && (info.type == MATCH_HASH || info.type == MATCH_PATH);
}

Reason CompareRecord(const ProcessInfo& entry, const ProcessInfo& info) {
    if (!IsSameKind(entry, info)) {
        return Reason::OTHER_KIND;
    }
    if (info.type == MATCH_HASH) {
        return entry.hash == info.hash ? Reason::VOUCHED_FOR : Reason::OTHER_DIGEST;
    }
    return entry.path == info.path ? Reason::VOUCHED_FOR : Reason::OTHER_PATH;
}

// The first entry that vouches comes before the first of the record's kind, and that before the first of all.
bool IsBetter(Reason reason, const ListOpinion& best) {
    const bool firstOfKind = best.reason == Reason::OTHER_KIND && reason != Reason::OTHER_KIND;
    return !best.entry || (!best.Vouches() && (reason == Reason::VOUCHED_FOR || firstOfKind));
}

} // namespace

ListOpinion OnDigest(const ProcessInfo& entry, const std::string& sha256) {
    return {entry.hash == sha256 ? Reason::VOUCHED_FOR : Reason::OTHER_DIGEST, entry};
}

ListOpinion OnDigest(const TrustGroup& group, const std::string& sha256) {
    const auto found =
        std::find_if(group.begin(), group.end(), [&](const TrustRecord& entry) { return entry.HasHash(sha256); });
    if (found != group.end()) {
        return OnDigest(found->Expand(), sha256);
    }
    return group.empty() ? ListOpinion{} : OnDigest(group.front().Expand(), sha256);
}

ListOpinion OnRecord(const ProcessInfo& entry, const ProcessInfo& info) {
    if (info.type == MATCH_PATH) {
        return {Reason::VOUCHED_FOR, entry};
    }
    return {CompareRecord(entry, info), entry};
}

ListOpinion OnRecord(const std::vector<ProcessInfo>& group, const ProcessInfo& info) {
    ListOpinion best;
    for (const ProcessInfo& entry : group) {
        const Reason reason = CompareRecord(entry, info);
        if (IsBetter(reason, best)) {
            best = {reason, entry};
        }
    }
    return best;
}

bool HasSameKind(const std::vector<ProcessInfo>& group, const ProcessInfo& info) {
    return std::any_of(group.begin(), group.end(), [&](const ProcessInfo& entry) { return IsSameKind(entry, info); });
}

} // namespace Engine::list_opinion
