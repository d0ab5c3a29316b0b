#include "WhitelistPolicy.h"

#include <memory>
#include <utility>

#include "ConfigManager.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"
#include "utils/PolicyContent.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

bool ParseSubPolicy(Framework::TaskPolicy& policy, const std::string& subPolicyJson) {
    Json::Value subPolicy;
    if (SDK::JsonUtils::ParseJsonStr(subPolicyJson, subPolicy) != 0) {
        return true;
    }
    Json::Value condition;
    if (!SDK::JsonUtils::GetSubobjectValue(subPolicy, "task_condition", condition)) {
        return false;
    }
    return policy.ParseCondition(SDK::JsonUtils::JsonToString(condition));
}

enum class Child { Absent, Refused, Added };

// Builds the policy of one task from the sub-policy that bears the task's name.
template <typename TaskPolicyType>
Child AddTaskPolicy(Framework::CompositePolicy& parent, const Json::Value& content, const char* taskName,
                    const char* addedMessage) {
    Json::Value subPolicy;
    if (!SDK::JsonUtils::GetSubobjectValue(content, taskName, subPolicy)) {
        return Child::Absent;
    }
    auto policy = std::make_unique<TaskPolicyType>(taskName);
    if (!policy->Parse(SDK::JsonUtils::JsonToString(subPolicy))) {
        return Child::Refused;
    }
    moduleLog.Debug(addedMessage);
    parent.Add(policy.release());
    return Child::Added;
}

} // namespace

bool WhitelistPolicy::Parse(const std::string& policyJson) {
    if (!ConfigManager::Instance()->ParsePolicy(policyJson.c_str())) {
        moduleLog.Error("Parse Whitelist Policy Failed");
    }
    TakeSnapshot();
    Json::Value policy;
    Json::Value content;
    if (SDK::JsonUtils::ParseJsonStr(policyJson, policy) != 0 || !utils::TakePolicyContent(policy, content)) {
        return false;
    }
    int childResult = 0;
    return ParseTaskMod(content, childResult) &&
           AddTaskPolicy<ProcessManagerTaskPolicy>(*this, content, PROCESS_MANAGER_TASK, "Add process manager task") !=
               Child::Refused &&
           AddTaskPolicy<LearnStatusCheckTaskPolicy>(*this, content, LEARN_STATUS_CHECK_TASK,
                                                     "Add learn status check task") != Child::Refused;
}

void WhitelistPolicy::TakeSnapshot() {
    const ConfigManager& config = *ConfigManager::Instance();
    mLearnPeriod = config.GetLearnPeriod();
    mDirs = config.GetDirs();
    mExts = config.GetExts();
    mExpandedDirs = config.GetExpandedDirs();
    mActionBlock = config.GetActionBlock();
    mMountMod = config.GetMountMod();
    mDirMod = config.GetDirMod();
    mScanPeriodSeconds = config.GetScanPeriodSeconds();
    mAutoDetect = config.GetAutoDetect();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool WhitelistPolicy::ParseTaskMod(Json::Value content, int& childResult) {
    const bool dirMod = SDK::JsonUtils::GetBoolValue(content, "dir_mod", false);
    const Child child = dirMod
                            ? AddTaskPolicy<SpecifiedFileAuditTaskPolicy>(*this, content, SPECIFIED_FILE_AUDIT_TASK,
                                                                          "Add specified file audit task")
                            : AddTaskPolicy<FullProcTaskPolicy>(*this, content, FULL_PROC_TASK, "Add full proc task");
    if (child == Child::Absent) {
        return true;
    }
    childResult = child == Child::Added ? 1 : 0;
    if (child == Child::Refused && !dirMod) {
        moduleLog.Error("Add full proc task failed");
    }
    return child == Child::Added;
}

bool SpecifiedFileAuditTaskPolicy::Parse(const std::string& subPolicyJson) {
    moduleLog.Debug("specified file audit task policy is [%s]", subPolicyJson);
    return ParseSubPolicy(*this, subPolicyJson);
}

bool FullProcTaskPolicy::Parse(const std::string& subPolicyJson) {
    return ParseSubPolicy(*this, subPolicyJson);
}

bool ProcessManagerTaskPolicy::Parse(const std::string& subPolicyJson) {
    moduleLog.Debug("process manager task policy is [%s]", subPolicyJson);
    return ParseSubPolicy(*this, subPolicyJson);
}

bool LearnStatusCheckTaskPolicy::Parse(const std::string& subPolicyJson) {
    moduleLog.Debug("learn status check task policy is [%s]", subPolicyJson);
    return ParseSubPolicy(*this, subPolicyJson);
}

} // namespace Engine
