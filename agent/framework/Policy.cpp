#include "framework/Policy.h"

#include <algorithm>

#include <Poco/AutoPtr.h>

#include "framework/Engine.h"
#include "framework/Task.h"
#include "framework/TaskCondition.h"
#include "sdk/ModuleLog.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

// The child of that name of a policy that may be no composite; null when there is none.
Policy* FindChild(Policy* parent, const std::string& name) {
    const auto* composite = dynamic_cast<const CompositePolicy*>(parent);
    if (composite == nullptr) {
        return nullptr;
    }
    const auto& children = composite->GetChildren();
    const auto child = std::find_if(children.begin(), children.end(),
                                    [&](const auto& candidate) { return candidate->GetName() == name; });
    return child == children.end() ? nullptr : child->get();
}

} // namespace

void Policy::Dispatch(Policy* /*superseded*/) {}

bool Policy::PolicyChanged(const std::string& /*featureHash*/, const std::string& /*policyKey*/) {
    return false;
}

void CompositePolicy::Dispatch(Policy* superseded) {
    for (const auto& child : mChildren) {
        child->Dispatch(FindChild(superseded, child->GetName()));
    }
}

void FeaturePolicy::Dispatch(Policy* superseded) {
    CompositePolicy::Dispatch(superseded);
}

bool FeaturePolicy::PolicyChanged(const std::string& featureHash, const std::string& policyKey) {
    return mFeatureHash != featureHash || mPolicyKey != policyKey;
}

bool TaskPolicy::ParseCondition(const std::string& conditionJson) {
    return TaskCondition::Parse(conditionJson, mPeriodSeconds);
}

void TaskPolicy::Dispatch(Policy* /*superseded*/) {
    Poco::AutoPtr<Task> task = Engine::FindTask(GetName());
    if (!task) {
        moduleLog.Debug("no task [%s] runs that its policy could be given to", GetName());
        return;
    }
    task->GetCondition().SetPeriod(mPeriodSeconds);
}

} // namespace Framework
