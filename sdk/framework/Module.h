#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Util/Subsystem.h>

#include "framework/Callback.h"
#include "framework/Task.h"

namespace Framework {

class Policy;

// A unit of the agent, in a shared library of its own that exports
//
//     extern "C" Framework::Module* CreateModule();
//
// The engine creates it, calls Init, delivers policies and commands to the callbacks that it
// registered, runs the tasks that it registered, calls UnInit and releases it.
//
// Callbacks are registered and invoked on the engine's delivery thread; tasks have threads of their
// own.
//
// When tasks are ended they are all asked first and then have STOP_DEADLINE together. A task that
// does not end in time is given up: that is logged and counted ("task.abandoned"), it is no longer
// found, its UnInit is not called, and its thread and its object are left behind for good, since
// neither can be taken away from under the other.
class Module : public Poco::Util::Subsystem {
public:
    static constexpr std::chrono::seconds STOP_DEADLINE{10};

    explicit Module(const std::string& name);
    ~Module() override;

    const char* name() const override;

    // The start. 0, or the exit status (sysexits.h) that the daemon should end with because the agent
    // cannot do its work without this module. An override calls this base.
    virtual int Init();

    // The end: stops every task, last registered first, and drops what was registered. 0 when all
    // tasks ended in time. An override calls this base.
    virtual int UnInit();

    // Delivers a policy document to the callback of `policyKey`. `policyHash` is the document's
    // version tag, possibly empty. `current` is the installed policy or null.
    //
    // True when `current` is now the policy in force: it was already (same non-empty hash; nothing
    // changes), or the document was accepted, then `current` is replaced by the new policy, the old
    // one is deleted, and the registered tasks are started if the feature is enabled. False when the
    // document was refused: `current` is untouched, and tasks that were registered on the way are
    // dropped unstarted; tasks that ran before may have been stopped.
    virtual bool RefreshPolicy(const std::string& policyKey, const std::string& policyHash,
                               const std::string& policyJson, Policy*& current);

    // Takes ownership of the task, also when it is refused (null). `startNow` false: it is started
    // when the policy being delivered has been accepted; true: at once, for tasks that need no
    // policy.
    //
    // If tasks of the same feature run from an earlier policy, the first task that a delivery
    // registers ends them all first, last started first: each is cancelled, joined, un-initialised
    // and destroyed. Two tasks of one name may be registered; both are started, and the later is the
    // one that FindTask finds.
    bool RegisterTask(Task* task, bool startNow);

    // Each takes ownership of the callback. A null callback is kept and answered as "refused" when a
    // delivery comes. A later registration under the same key replaces the earlier.
    void RegisterTaskletCallback(const std::string& key, AbstractTaskletCallback* callback);
    void RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback);

    // Destroys the callback; nothing happens when there is none under that key.
    void UnRegisterTaskletCallback(const std::string& key);
    void UnRegisterPolicyCallback(const std::string& key);

    bool HasTasklet(const std::string& key) const;
    bool HasPolicy(const std::string& key) const;

    // The callbacks registered now, in key order; for tests and diagnosis. Owned by the module.
    std::vector<std::pair<std::string, const AbstractTaskletCallback*>> ListTasklets() const;
    std::vector<std::string> ListPolicyKeys() const;

    // Hands a command to the callback of `key`. False when there is none; otherwise `result` is the
    // callback's, or -1 when it threw.
    bool InvokeTasklet(const std::string& key, const std::string& text, int& result);

    // Tasks that wait for a policy to be accepted, and tasks that were started, oldest first.
    std::vector<Poco::AutoPtr<Task>> GetRegisteredTasks() const;
    std::vector<Poco::AutoPtr<Task>> GetRunningTasks() const;

protected:
    // Poco's side of the same life: they call Init and UnInit.
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

private:
    struct State;

    const std::string mName;
    std::unique_ptr<State> mState;
};

} // namespace Framework

// The name and type of a module library's factory. The caller owns the result and ends its life with
// release().
extern "C" {
using CreateModuleFunction = Framework::Module* (*)();
}
