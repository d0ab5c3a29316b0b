#include "framework/TaskCondition.h"

#include <json/value.h>

#include "sdk/JsonUtils.h"

namespace Framework {

bool TaskCondition::Parse(const std::string& conditionJson, int& periodSeconds) {
    Json::Value condition;
    if (SDK::JsonUtils::ParseJsonStr(conditionJson, condition) != 0 || !condition.isObject()) {
        return false;
    }
    if (!condition.isMember("period")) {
        periodSeconds = 0;
        return true;
    }
    const int period = SDK::JsonUtils::GetIntValue(condition, "period", 0);
    if (period < 1) {
        return false;
    }
    periodSeconds = period;
    return true;
}

} // namespace Framework
