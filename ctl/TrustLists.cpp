#include "ctl/TrustLists.h"

#include "ctl/Failure.h"
#include "ctl/Output.h"

namespace Ctl {

bool IsPresetList(const std::string& list) {
    return list == "os" || list == "service";
}

Json::Value AskForTrustList(const Client& client, const std::string& list) {
    Json::Value entries = Member(client.Get("/trust?list=" + list), "process_info");
    if (!entries.isArray()) {
        throw Failure("the daemon's answer holds no list");
    }
    return entries;
}

std::string ExplainRefusal(const Json::Value& answer, const std::string& fallback) {
    const Json::Value notes = Member(answer, "notes");
    std::string reasons;
    if (notes.isArray()) {
        for (const Json::Value& note : notes) {
            reasons += (reasons.empty() ? "" : "; ") + (note.isString() ? note.asString() : "");
        }
    }
    return reasons.empty() ? fallback : reasons;
}

} // namespace Ctl
