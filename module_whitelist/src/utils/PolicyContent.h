#pragma once

#include <json/value.h>

#include "sdk/JsonUtils.h"

namespace utils {

// The object "content" of a feature policy. False, `content` untouched, when there is none or it is
// not an object.
inline bool TakePolicyContent(const Json::Value& policy, Json::Value& content) {
    Json::Value member;
    if (!SDK::JsonUtils::GetSubobjectValue(policy, "content", member) || !member.isObject()) {
        return false;
    }
    content = member;
    return true;
}

} // namespace utils
