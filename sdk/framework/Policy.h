#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Framework {

// Settings that were delivered for something that has a name.
class Policy {
public:
    explicit Policy(const std::string& name) : mName(name) {}
    virtual ~Policy() = default;
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    // Reads the settings from a JSON document. False when they are not usable.
    virtual bool Parse(const std::string& policyJson) = 0;

    // Puts the policy into effect. `superseded` is the policy that it takes the place of, or null.
    virtual void Dispatch(Policy* superseded);

    // True when a policy with this identity would differ from this one. The default reports no
    // change.
    virtual bool PolicyChanged(const std::string& featureHash, const std::string& policyKey);

    const std::string& GetName() const { return mName; }
    void SetName(const std::string& name) { mName = name; }

    // Set on an installed policy when a newer one has been made from a delivery.
    bool IsSuperseded() const { return mSuperseded; }
    void SetSuperseded(bool superseded) { mSuperseded = superseded; }

private:
    std::string mName;
    bool mSuperseded = false;
};

// A policy that has others as its children and owns them.
class CompositePolicy : public Policy {
public:
    using Policy::Policy;

    // Takes ownership.
    void Add(Policy* child) { mChildren.emplace_back(child); }

    const std::vector<std::unique_ptr<Policy>>& GetChildren() const { return mChildren; }

    // Dispatches every child in the order in which they were added.
    void Dispatch(Policy* superseded) override;

private:
    std::vector<std::unique_ptr<Policy>> mChildren;
};

// What one feature of a module was given: a set of task policies, switched on or off as a whole.
class FeaturePolicy : public CompositePolicy {
public:
    using CompositePolicy::CompositePolicy;

    void Dispatch(Policy* superseded) override;

    // True when the hash or the key differs.
    bool PolicyChanged(const std::string& featureHash, const std::string& policyKey) override;

    const std::string& GetFeatureHash() const { return mFeatureHash; }
    void SetFeatureHash(const std::string& featureHash) { mFeatureHash = featureHash; }

    // The key that the policy was delivered under; the framework sets it when it installs the policy.
    const std::string& GetPolicyKey() const { return mPolicyKey; }
    void SetPolicyKey(const std::string& policyKey) { mPolicyKey = policyKey; }

    // Tasks of a feature that is not enabled are not started.
    bool IsEnabled() const { return mEnabled; }
    void SetEnabled(bool enabled) { mEnabled = enabled; }

private:
    std::string mFeatureHash;
    std::string mPolicyKey;
    bool mEnabled = false;
};

// The settings of one task; bears the task's name.
class TaskPolicy : public Policy {
public:
    using Policy::Policy;

    // Reads a task condition (see TaskCondition) and keeps it. False, the condition unchanged, when
    // the text is no such document or its period is below 1.
    bool ParseCondition(const std::string& conditionJson);

    // 0 for no period.
    int GetPeriodSeconds() const { return mPeriodSeconds; }

    // Gives the running task of this policy's name the condition.
    void Dispatch(Policy* superseded) override;

private:
    int mPeriodSeconds = 0;
};

} // namespace Framework
