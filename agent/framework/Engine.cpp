#include "framework/Engine.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <utility>

#include <sysexits.h>

#include "agent/framework/Guard.h"
#include "agent/framework/ModuleLibrary.h"
#include "agent/framework/StopStep.h"
#include "agent/framework/TaskIndex.h"
#include "agent/sdk/LogCapture.h"
#include "agent/sdk/LogChannels.h"
#include "framework/Counters.h"
#include "framework/Policy.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/RwLock.h"
#include "sdk/Shortage.h"
#include "sdk/TimeUtils.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

// Whether there is an engine; FindTask finds nothing without one.
std::atomic<bool> engineExists{false};

struct InstalledPolicy {
    std::unique_ptr<Policy> policy;
    std::string document;
    std::int64_t acceptedTime = 0;
};

std::string Join(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) {
        joined += (joined.empty() ? "" : "; ") + text;
    }
    return joined;
}

Engine::Outcome Refused(const std::string& reason) {
    return {false, reason, {}};
}

// What is to be said of a policy that the module refused without a word.
std::string ExplainRefusedPolicy(const std::string& moduleName, const std::string& policyJson) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(policyJson, document) != 0 || !document.isObject()) {
        return "not a JSON object";
    }
    if (!document["content"].isObject()) {
        return "no \"content\" object";
    }
    return "refused by module " + moduleName + " without a reason";
}

std::string ExplainRefusedCommand(const std::string& moduleName, const std::string& text) {
    return "refused by module " + moduleName +
           (text.empty() ? ": the command came without a document" : " without a reason");
}

std::string GetFeatureHash(const std::string& policyJson) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(policyJson, document) != 0) {
        return "";
    }
    return SDK::JsonUtils::GetStringValue(document, "feature_hash", "");
}

// Which task objects run; holds none of them alive.
std::vector<std::uint64_t> ListRunningInstances(const Module& module) {
    std::vector<std::uint64_t> instances;
    for (const Poco::AutoPtr<Task>& task : module.GetRunningTasks()) {
        instances.push_back(task->GetInstanceId());
    }
    return instances;
}

// What became of a delivery, by its result and the error records that this thread logged meanwhile.
Engine::Outcome MakeOutcome(bool accepted, const SDK::LogCapture& capture) {
    std::vector<std::string> texts;
    for (const SDK::LogCapture::Record& record : capture.Records()) {
        texts.push_back(record.text);
    }
    if (accepted) {
        return {true, "", texts};
    }
    return {false, Join(texts), {}};
}

void UnInitModule(Module& module) {
    const std::string name = module.name();
    NoteStopStep("the UnInit of module [" + name + "]");
    CallGuarded("module", name, "UnInit", [&] {
        const int status = module.UnInit();
        if (status != 0) {
            moduleLog.Warning("module [%s]: UnInit returned %d", name, status);
        }
    });
}

Json::Value DescribeTask(const Task& task) {
    Json::Value description(Json::objectValue);
    description["name"] = task.name();
    description["state"] = task.GetStateName();
    description["depth"] = task.GetQueueDepth();
    description["capacity"] = task.GetQueueCapacity();
    description["lost"] = Json::UInt64(task.GetLostCount());
    return description;
}

Json::Value MakeError(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

} // namespace

struct Engine::State {
    // Held through a whole delivery; taken before `modulesLock`.
    mutable SDK::RwLock deliveryLock;
    // By policy key. An entry without a policy stands for none.
    std::map<std::string, InstalledPolicy> policies GUARDED_BY(deliveryLock);

    // Never held while a module is called.
    mutable SDK::RwLock modulesLock;
    // In the order of loading.
    std::vector<LoadedModule> modules GUARDED_BY(modulesLock);

    std::vector<LoadedModule> GetModules() const {
        const SDK::ReadGuard guard(modulesLock);
        return modules;
    }

    // The first module that fits; no module when none does.
    template <typename Condition> LoadedModule FindModule(const Condition& fits) const {
        for (const LoadedModule& loaded : GetModules()) {
            if (fits(*loaded.module)) {
                return loaded;
            }
        }
        return {};
    }

    LoadedModule FindNamedModule(const std::string& name) const {
        return FindModule([&](const Module& module) { return name == module.name(); });
    }

    void Add(const LoadedModule& loaded) {
        const SDK::WriteGuard guard(modulesLock);
        modules.push_back(loaded);
    }

    void ForgetModules() {
        const SDK::WriteGuard guard(modulesLock);
        modules.clear();
    }

    // True when the module accepted the document; `installed` then holds the policy made from it.
    bool Deliver(Module& module, const std::string& policyKey, const std::string& policyHash,
                 const std::string& policyJson, InstalledPolicy& installed) REQUIRES(deliveryLock) {
        Policy* current = installed.policy.release();
        const Policy* const before = current;
        bool accepted = false;
        CallGuarded("module", module.name(), "RefreshPolicy",
                    [&] { accepted = module.RefreshPolicy(policyKey, policyHash, policyJson, current); });
        installed.policy.reset(current);
        if (accepted && current != before) {
            installed.document = policyJson;
            installed.acceptedTime = SDK::TimeUtils::GetCurrentTimestampS();
        }
        return accepted;
    }

    // After a refusal that came when tasks had been ended already: the installed policy's own document
    // starts them again. Without a hash, since it would be taken for no news.
    void DeliverAgain(Module& module, const std::string& policyKey, InstalledPolicy& installed) REQUIRES(deliveryLock) {
        const std::string document = installed.document;
        const std::int64_t acceptedTime = installed.acceptedTime;
        if (!Deliver(module, policyKey, "", document, installed)) {
            moduleLog.Error("module [%s] refused its installed policy under key [%s]: its tasks stand still",
                            std::string(module.name()), policyKey);
            return;
        }
        installed.acceptedTime = acceptedTime;
        moduleLog.Warning("module [%s]: a refused policy under key [%s] had ended tasks, the installed one was "
                          "delivered again",
                          std::string(module.name()), policyKey);
    }
};

Engine::Engine() : mState(std::make_unique<State>()) {
    engineExists.store(true, std::memory_order_release);
}

Engine::~Engine() {
    UnInitModules();
    engineExists.store(false, std::memory_order_release);
}

Poco::AutoPtr<Task> Engine::FindTask(const std::string& name) {
    if (!engineExists.load(std::memory_order_acquire)) {
        return {};
    }
    return TaskIndex::Instance().Find(name);
}

bool Engine::LoadModule(const std::string& path, std::string& reason) {
    LoadedModule loaded;
    if (LoadModuleLibrary(path, loaded, reason)) {
        const std::string name = loaded.module->name();
        if (!mState->FindNamedModule(name).module) {
            mState->Add(loaded);
            moduleLog.Information("module [%s] loaded from [%s]", name, path);
            return true;
        }
        reason = "a module of the name " + name + " is loaded already";
    }
    moduleLog.Error("load module [%s] failed: %s", path, reason);
    return false;
}

void Engine::AddModule(Module* module, ModuleInspector* inspector) {
    const LoadedModule added{std::shared_ptr<ModuleInspector>(inspector), Poco::AutoPtr<Module>(module)};
    if (!added.module) {
        moduleLog.Error("no module to add");
        return;
    }
    mState->Add(added);
}

int Engine::InitModules() {
    for (LoadedModule& loaded : mState->GetModules()) {
        const std::string name = loaded.module->name();
        int status = EX_SOFTWARE;
        CallGuarded("module", name, "Init", [&] { status = loaded.module->Init(); });
        if (status != EX_OK) {
            moduleLog.Error("module [%s]: Init failed with status %d", name, status);
            return status;
        }
    }
    return EX_OK;
}

void Engine::UnInitModules() {
    const SDK::WriteGuard delivery(mState->deliveryLock);
    std::vector<LoadedModule> modules = mState->GetModules();
    std::for_each(modules.rbegin(), modules.rend(), [](LoadedModule& loaded) { UnInitModule(*loaded.module); });
    // The policies are objects of the modules' making.
    mState->policies.clear();
    mState->ForgetModules();
    while (!modules.empty()) {
        modules.pop_back();
    }
}

Engine::Outcome Engine::DeliverPolicy(const std::string& policyKey, const std::string& policyJson) {
    const SDK::WriteGuard delivery(mState->deliveryLock);
    LoadedModule loaded = mState->FindModule([&](const Module& module) { return module.HasPolicy(policyKey); });
    if (!loaded.module) {
        return Refused("no module takes policies under key " + policyKey);
    }
    Module& module = *loaded.module;
    InstalledPolicy& installed = mState->policies[policyKey];
    const std::vector<std::uint64_t> runningBefore = ListRunningInstances(module);
    Outcome outcome;
    {
        const SDK::LogCapture capture;
        outcome =
            MakeOutcome(mState->Deliver(module, policyKey, GetFeatureHash(policyJson), policyJson, installed), capture);
    }
    if (!outcome.accepted && outcome.reason.empty()) {
        outcome.reason = ExplainRefusedPolicy(module.name(), policyJson);
    }
    if (!outcome.accepted && installed.policy && ListRunningInstances(module) != runningBefore) {
        mState->DeliverAgain(module, policyKey, installed);
    }
    return outcome;
}

Engine::Outcome Engine::DeliverCommand(const std::string& key, const std::string& text) {
    const SDK::WriteGuard delivery(mState->deliveryLock);
    LoadedModule loaded = mState->FindModule([&](const Module& module) { return module.HasTasklet(key); });
    if (!loaded.module) {
        return Refused("no module takes commands under key " + key);
    }
    const SDK::LogCapture capture;
    int result = -1;
    const bool accepted = loaded.module->InvokeTasklet(key, text, result) && result == 0;
    Outcome outcome = MakeOutcome(accepted, capture);
    if (!accepted && outcome.reason.empty()) {
        outcome.reason = ExplainRefusedCommand(loaded.module->name(), text);
    }
    return outcome;
}

Json::Value Engine::GetPolicy(const std::string& policyKey) const {
    const SDK::ReadGuard delivery(mState->deliveryLock);
    const auto found = mState->policies.find(policyKey);
    if (found == mState->policies.end() || !found->second.policy) {
        return Json::nullValue;
    }
    const InstalledPolicy& installed = found->second;
    const auto* feature = dynamic_cast<const FeaturePolicy*>(installed.policy.get());
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(installed.document, document);
    Json::Value description(Json::objectValue);
    description["hash"] = feature == nullptr ? "" : feature->GetFeatureHash();
    description["enabled"] = feature == nullptr || feature->IsEnabled();
    description["accepted_time"] = Json::Int64(installed.acceptedTime);
    description["document"] = document;
    return description;
}

Json::Value Engine::Ask(const std::string& moduleName, const Json::Value& request) const {
    const LoadedModule loaded = mState->FindNamedModule(moduleName);
    if (!loaded.module) {
        return MakeError("there is no module " + moduleName);
    }
    if (!loaded.inspector) {
        return MakeError("module " + moduleName + " cannot be asked");
    }
    Json::Value answer;
    if (!CallGuarded("module", moduleName, "Ask", [&] { answer = loaded.inspector->Ask(request); })) {
        return MakeError("module " + moduleName + " threw");
    }
    return answer;
}

Json::Value Engine::CollectStatus() const {
    Json::Value tasks(Json::arrayValue);
    for (const LoadedModule& loaded : mState->GetModules()) {
        for (const Poco::AutoPtr<Task>& task : loaded.module->GetRunningTasks()) {
            tasks.append(DescribeTask(*task));
        }
    }
    Json::Value counters(Json::objectValue);
    for (const auto& [name, value] : Counters::Snapshot()) {
        counters[name] = Json::UInt64(value);
    }
    // libsdk lies below the counters.
    const SDK::DigestFigures digests = SDK::FileUtils::GetDigestFigures();
    counters["digest.hit"] = Json::UInt64(digests.hits);
    counters["digest.miss"] = Json::UInt64(digests.misses);
    counters["digest.refused"] = Json::UInt64(digests.refused);
    counters["resources.short"] = Json::UInt64(SDK::Shortage::Count());
    counters["log.lost"] = Json::UInt64(SDK::CountLostRecords());
    Json::Value status(Json::objectValue);
    status["tasks"] = tasks;
    status["counters"] = counters;
    return status;
}

} // namespace Framework
