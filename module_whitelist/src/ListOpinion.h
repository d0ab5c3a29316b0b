#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ProcessInfo.h"
#include "TrustRecord.h"

namespace Engine {

// What one trust list says of a program, and why. Every decision asks for it, and so does whoever wants
// a decision explained.
struct ListOpinion {
    enum class Reason {
        VOUCHED_FOR,
        UNKNOWN,      // nothing stands under what the list is looked up by
        OTHER_DIGEST, // an entry does, but for another content
        OTHER_KIND,   // an entry does, but it is matched by something else (MatchType)
        OTHER_PATH,   // an entry does, but for a script at another path
    };

    Reason reason = Reason::UNKNOWN;
    // The entry that vouches, otherwise the one that comes nearest; at most one of the two is set.
    std::optional<ProcessInfo> entry{};
    std::optional<PresetProcessInfo> presetEntry{};

    bool Vouches() const { return reason == Reason::VOUCHED_FOR; }
};

// What entries say of a record or a digest. They compare what they are given and look nothing up.
namespace list_opinion {

// By the content alone, whatever the entry's kind. A group is that of one name, in file order; the first
// entry that vouches is the one.
ListOpinion OnDigest(const ProcessInfo& entry, const std::string& sha256);
ListOpinion OnDigest(const TrustGroup& group, const std::string& sha256);

// The local list's entry of the record's path: a script is vouched for by the path alone.
ListOpinion OnRecord(const ProcessInfo& entry, const ProcessInfo& info);

// The server list's entries of the record's name: an image is matched by its digest, a script by its
// path.
ListOpinion OnRecord(const std::vector<ProcessInfo>& group, const ProcessInfo& info);

// True when an entry of the group is of the record's kind, so that the record's details are needed.
bool HasSameKind(const std::vector<ProcessInfo>& group, const ProcessInfo& info);

} // namespace list_opinion

} // namespace Engine
