#pragma once

#include <string>

namespace Framework {

class Policy;

// Where a server command ("tasklet") enters a module.
class AbstractTaskletCallback {
public:
    virtual ~AbstractTaskletCallback() = default;

    // Handles the command's text. 0 when it was done, -1 when it was refused.
    virtual int invoke(const std::string& cmd) const = 0;

    // True when the command may take longer than a delivery should.
    virtual bool IsLongAction() const = 0;
};

// Calls a member function of a module, which is not owned and must outlive the callback.
template <typename ModuleType> class TaskletCallback : public AbstractTaskletCallback {
public:
    using Handler = int (ModuleType::*)(const std::string&);

    TaskletCallback(ModuleType* owner, Handler operation, bool isLongAction)
        : module(owner), handler(operation), longAction(isLongAction) {}

    int invoke(const std::string& cmd) const override { return (module->*handler)(cmd); }
    bool IsLongAction() const override { return longAction; }

private:
    ModuleType* module;
    Handler handler;
    bool longAction;
};

// Where a policy document enters a module.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;

    // Makes a policy from the document. `current` is the installed policy of that key or null. The
    // caller owns the result; null when the document is refused.
    virtual Policy* invoke(const std::string& key, const std::string& policyJson, Policy*& current) const = 0;
};

// Calls a member function of a module, which is not owned and must outlive the callback.
template <typename ModuleType> class PolicyCallback : public AbstractPolicyCallback {
public:
    using Handler = Policy* (ModuleType::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(ModuleType* owner, Handler operation) : module(owner), handler(operation) {}

    Policy* invoke(const std::string& key, const std::string& policyJson, Policy*& current) const override {
        return (module->*handler)(key, policyJson, current);
    }

private:
    ModuleType* module;
    Handler handler;
};

} // namespace Framework
