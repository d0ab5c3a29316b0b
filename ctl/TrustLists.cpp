#include "ctl/TrustLists.h"

#include "ctl/Failure.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

bool IsPresetList(const std::string& list) {
    return list == "os" || list == "service";
}

Json::Value AskForTrustList(const Client& client, const std::string& list) {
    const Json::Value answer = client.Get("/trust?list=" + list);
    Json::Value entries;
    if (!SDK::JsonUtils::IsArrayValue(answer, "process_info") ||
        !SDK::JsonUtils::GetSubobjectValue(answer, "process_info", entries)) {
        throw Failure("the daemon's answer holds no list");
    }
    return entries;
}

std::string ExplainRefusal(const Json::Value& answer, const std::string& fallback) {
    Json::Value notes;
    SDK::JsonUtils::GetSubobjectValue(answer, "notes", notes);
    std::string reasons;
    if (notes.isArray()) {
        for (const Json::Value& note : notes) {
            reasons += (reasons.empty() ? "" : "; ") + (note.isString() ? note.asString() : "");
        }
    }
    return reasons.empty() ? fallback : reasons;
}

} // namespace Ctl
