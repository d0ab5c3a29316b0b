#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>

#include "framework/Policy.h"

namespace Engine {

// The module's feature policy: a snapshot of the settings that its document brought, and one task
// policy for each of the module's tasks that the document configures.
//
// The settings are parsed by ConfigManager, which is where the module reads them; the snapshot tells
// what one delivery said and never changes after Parse.
class WhitelistPolicy : public Framework::FeaturePolicy {
public:
    using Framework::FeaturePolicy::FeaturePolicy;

    // Hands the document to ConfigManager, copies the settings that it then holds (also when it refused
    // the document), and builds the task policies. False when a task policy is unusable or the document
    // has no content; the children built so far stay.
    bool Parse(const std::string& policyJson) override;

    std::int32_t GetLearnPeriod() const { return mLearnPeriod; } // minutes
    const std::vector<std::string>& GetDirs() const { return mDirs; }
    const std::set<std::string>& GetExts() const { return mExts; }
    const std::set<std::string>& GetExpandedDirs() const { return mExpandedDirs; }
    std::int32_t GetActionBlock() const { return mActionBlock; }
    bool GetMountMod() const { return mMountMod; }
    bool GetDirMod() const { return mDirMod; }
    std::int32_t GetScanPeriodSeconds() const { return mScanPeriodSeconds; }
    bool GetAutoDetect() const { return mAutoDetect; }

private:
    void TakeSnapshot();

    // Adds the policy of the task that only the document's mode has. `childResult` is set to whether
    // its sub-policy parsed, 1 or 0, if there is one.
    bool ParseTaskMod(Json::Value content, int& childResult);

    std::int32_t mLearnPeriod = 0;
    std::vector<std::string> mDirs;
    std::set<std::string> mExts;
    std::set<std::string> mExpandedDirs;
    std::int32_t mActionBlock = 0;
    bool mMountMod = false;
    bool mDirMod = false;
    std::int32_t mScanPeriodSeconds = 0;
    bool mAutoDetect = false;
};

// The task policies. Each reads a sub-policy {"task_condition": CONDITION}. A sub-policy that is no
// JSON document counts as accepted and leaves the task its default condition; one without
// "task_condition" is refused.

class SpecifiedFileAuditTaskPolicy : public Framework::TaskPolicy {
public:
    using Framework::TaskPolicy::TaskPolicy;
    bool Parse(const std::string& subPolicyJson) override;
};

class FullProcTaskPolicy : public Framework::TaskPolicy {
public:
    using Framework::TaskPolicy::TaskPolicy;
    bool Parse(const std::string& subPolicyJson) override;
};

class ProcessManagerTaskPolicy : public Framework::TaskPolicy {
public:
    using Framework::TaskPolicy::TaskPolicy;
    bool Parse(const std::string& subPolicyJson) override;
};

class LearnStatusCheckTaskPolicy : public Framework::TaskPolicy {
public:
    using Framework::TaskPolicy::TaskPolicy;
    bool Parse(const std::string& subPolicyJson) override;
};

} // namespace Engine
