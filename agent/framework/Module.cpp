#include "framework/Module.h"

#include <map>
#include <set>

#include "agent/framework/Guard.h"
#include "agent/framework/RunningTasks.h"
#include "framework/Policy.h"
#include "sdk/ModuleLog.h"
#include "sdk/RwLock.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

bool IsSwitchedOn(const Policy& policy) {
    const auto* feature = dynamic_cast<const FeaturePolicy*>(&policy);
    return feature == nullptr || feature->IsEnabled();
}

bool IsInForce(Policy* current, const std::string& policyKey, const std::string& policyHash) {
    return !policyHash.empty() && dynamic_cast<FeaturePolicy*>(current) != nullptr &&
           !current->PolicyChanged(policyHash, policyKey);
}

} // namespace

// A task is in `registered` until the policy that is being delivered has been accepted, then in
// `running` or gone; one that starts at once is in `running` only.
struct Module::State {
    // A callback is shared with the delivery that is calling it: it may unregister itself. It is
    // destroyed outside the lock, being code of the module.
    template <typename Callback> using CallbackMap = std::map<std::string, std::shared_ptr<Callback>>;

    mutable SDK::RwLock lock;
    CallbackMap<AbstractTaskletCallback> tasklets GUARDED_BY(lock);
    CallbackMap<AbstractPolicyCallback> policies GUARDED_BY(lock);
    std::vector<Poco::AutoPtr<Task>> registered GUARDED_BY(lock);
    RunningTasks running;

    // For the delivery thread. Whether a policy callback is being called, and the features whose
    // earlier tasks it has ended by registering the first new one.
    bool delivering = false;
    std::set<std::string> replacedFeatures;

    std::shared_ptr<AbstractPolicyCallback> FindPolicyCallback(const std::string& key) const {
        const SDK::ReadGuard guard(lock);
        const auto found = policies.find(key);
        return found == policies.end() ? nullptr : found->second;
    }

    std::size_t CountRegistered() const {
        const SDK::ReadGuard guard(lock);
        return registered.size();
    }

    // Takes out the registered tasks behind the first `kept`.
    std::vector<Poco::AutoPtr<Task>> TakeRegistered(std::size_t kept) {
        const SDK::WriteGuard guard(lock);
        const auto first = registered.begin() + static_cast<std::ptrdiff_t>(kept);
        std::vector<Poco::AutoPtr<Task>> taken(first, registered.end());
        registered.erase(first, registered.end());
        return taken;
    }

    // Calls the policy callback as a delivery: RegisterTask replaces the tasks of an earlier one.
    Policy* Deliver(const AbstractPolicyCallback& callback, const std::string& moduleName, const std::string& policyKey,
                    const std::string& policyJson, Policy*& current) {
        Policy* fresh = nullptr;
        replacedFeatures.clear();
        delivering = true;
        CallGuarded("module", moduleName, "the policy callback",
                    [&] { fresh = callback.invoke(policyKey, policyJson, current); });
        delivering = false;
        return fresh;
    }

    void EndReplacedTasks(const std::string& featureName) {
        if (delivering && replacedFeatures.insert(featureName).second) {
            running.Stop([&](const Task& task) { return task.GetFeatureName() == featureName; });
        }
    }

    // Puts an accepted policy into effect and starts the registered tasks: with their conditions, so
    // they must be found before the policy is dispatched and not run before that.
    void Enforce(Policy& policy, Policy* superseded, const std::string& moduleName) {
        const std::vector<Poco::AutoPtr<Task>> tasks = TakeRegistered(0);
        const bool switchedOn = IsSwitchedOn(policy);
        if (switchedOn) {
            for (const Poco::AutoPtr<Task>& task : tasks) {
                running.Admit(task);
            }
        } else if (!tasks.empty()) {
            moduleLog.Information("policy [%s] is not enabled: %z tasks are not started", policy.GetName(),
                                  tasks.size());
        }
        CallGuarded("module", moduleName, "the policy's Dispatch", [&] { policy.Dispatch(superseded); });
        running.Launch();
    }
};

Module::Module(const std::string& name) : mName(name), mState(std::make_unique<State>()) {}

Module::~Module() = default;

const char* Module::name() const {
    return mName.c_str();
}

int Module::Init() {
    return 0;
}

int Module::UnInit() {
    const bool allEnded = mState->running.Stop([](const Task&) { return true; });
    mState->TakeRegistered(0);
    State::CallbackMap<AbstractTaskletCallback> tasklets;
    State::CallbackMap<AbstractPolicyCallback> policies;
    const SDK::WriteGuard guard(mState->lock);
    tasklets.swap(mState->tasklets);
    policies.swap(mState->policies);
    return allEnded ? 0 : -1;
}

bool Module::RefreshPolicy(const std::string& policyKey, const std::string& policyHash, const std::string& policyJson,
                           Policy*& current) {
    if (IsInForce(current, policyKey, policyHash)) {
        moduleLog.Debug("module [%s]: policy [%s] is in force already", mName, policyHash);
        return true;
    }
    const std::shared_ptr<AbstractPolicyCallback> callback = mState->FindPolicyCallback(policyKey);
    if (!callback) {
        moduleLog.Error("module [%s] has no handler for policies under key [%s]", mName, policyKey);
        return false;
    }
    const std::size_t registeredBefore = mState->CountRegistered();
    Policy* const fresh = mState->Deliver(*callback, mName, policyKey, policyJson, current);
    if (fresh == nullptr) {
        mState->TakeRegistered(registeredBefore);
        if (current != nullptr) {
            current->SetSuperseded(false);
        }
        return false;
    }
    if (auto* feature = dynamic_cast<FeaturePolicy*>(fresh)) {
        feature->SetPolicyKey(policyKey);
    }
    const std::unique_ptr<Policy> superseded(fresh == current ? nullptr : current);
    current = fresh;
    mState->Enforce(*fresh, superseded.get(), mName);
    return true;
}

bool Module::RegisterTask(Task* task, bool startNow) {
    const Poco::AutoPtr<Task> owned(task);
    if (!owned) {
        moduleLog.Error("module [%s] registered no task at all", mName);
        return false;
    }
    mState->EndReplacedTasks(owned->GetFeatureName());
    if (startNow) {
        return mState->running.Admit(owned) && mState->running.Launch();
    }
    const SDK::WriteGuard guard(mState->lock);
    mState->registered.push_back(owned);
    return true;
}

void Module::RegisterTaskletCallback(const std::string& key, AbstractTaskletCallback* callback) {
    std::shared_ptr<AbstractTaskletCallback> owned(callback);
    const SDK::WriteGuard guard(mState->lock);
    mState->tasklets[key].swap(owned);
}

void Module::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    std::shared_ptr<AbstractPolicyCallback> owned(callback);
    const SDK::WriteGuard guard(mState->lock);
    mState->policies[key].swap(owned);
}

void Module::UnRegisterTaskletCallback(const std::string& key) {
    State::CallbackMap<AbstractTaskletCallback>::node_type removed;
    const SDK::WriteGuard guard(mState->lock);
    removed = mState->tasklets.extract(key);
}

void Module::UnRegisterPolicyCallback(const std::string& key) {
    State::CallbackMap<AbstractPolicyCallback>::node_type removed;
    const SDK::WriteGuard guard(mState->lock);
    removed = mState->policies.extract(key);
}

bool Module::HasTasklet(const std::string& key) const {
    const SDK::ReadGuard guard(mState->lock);
    return mState->tasklets.contains(key);
}

bool Module::HasPolicy(const std::string& key) const {
    const SDK::ReadGuard guard(mState->lock);
    return mState->policies.contains(key);
}

std::vector<std::pair<std::string, const AbstractTaskletCallback*>> Module::ListTasklets() const {
    std::vector<std::pair<std::string, const AbstractTaskletCallback*>> tasklets;
    const SDK::ReadGuard guard(mState->lock);
    for (const auto& [key, callback] : mState->tasklets) {
        tasklets.emplace_back(key, callback.get());
    }
    return tasklets;
}

std::vector<std::string> Module::ListPolicyKeys() const {
    std::vector<std::string> keys;
    const SDK::ReadGuard guard(mState->lock);
    for (const auto& [key, callback] : mState->policies) {
        keys.push_back(key);
    }
    return keys;
}

bool Module::InvokeTasklet(const std::string& key, const std::string& text, int& result) {
    std::shared_ptr<AbstractTaskletCallback> callback;
    {
        const SDK::ReadGuard guard(mState->lock);
        const auto found = mState->tasklets.find(key);
        if (found == mState->tasklets.end()) {
            return false;
        }
        callback = found->second;
    }
    result = -1;
    if (!callback) {
        moduleLog.Error("module [%s] has no handler for commands under key [%s]", mName, key);
        return true;
    }
    CallGuarded("module", mName, "the command callback", [&] { result = callback->invoke(text); });
    return true;
}

std::vector<Poco::AutoPtr<Task>> Module::GetRegisteredTasks() const {
    const SDK::ReadGuard guard(mState->lock);
    return mState->registered;
}

std::vector<Poco::AutoPtr<Task>> Module::GetRunningTasks() const {
    return mState->running.List();
}

void Module::initialize(Poco::Util::Application& /*app*/) {
    Init();
}

void Module::uninitialize() {
    UnInit();
}

} // namespace Framework
