#include "WhitelistModule.h"

#include <memory>
#include <new>

#include <json/value.h>

#include "ConfigManager.h"
#include "FullProcTask.h"
#include "LearnStatusCheckTask.h"
#include "ProcessManager.h"
#include "ProcessManagerTask.h"
#include "SpecifiedFileAuditTask.h"
#include "WhitelistInspector.h"
#include "WhitelistPolicy.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"
#include "utils/PolicyContent.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);

constexpr const char* POLICY_KEY = "10001";
constexpr const char* SERVER_TRUST_LIST_KEY = "whitelist_10001";
constexpr const char* OS_PRESET_LIST_KEY = "whitelist_10002";
constexpr const char* SERVICE_PRESET_LIST_KEY = "whitelist_10003";
constexpr const char* RESET_LEARNING_KEY = "whitelist_10004";
constexpr const char* START_DETECT_KEY = "whitelist_10005";

constexpr int DONE = 0;
constexpr int REFUSED = -1;

} // namespace

WhitelistModule::WhitelistModule() : Framework::Module(MODULE_NAME) {}

WhitelistModule::~WhitelistModule() = default;

int WhitelistModule::Init() {
    moduleLog.Information("init module whitelist");
    using Command = Framework::TaskletCallback<WhitelistModule>;
    RegisterTaskletCallback(SERVER_TRUST_LIST_KEY,
                            new Command(this, &WhitelistModule::CmdMsgHandlerServerTrustList, false));
    RegisterTaskletCallback(OS_PRESET_LIST_KEY, new Command(this, &WhitelistModule::CmdMsgHandlerOsPresetList, false));
    RegisterTaskletCallback(SERVICE_PRESET_LIST_KEY,
                            new Command(this, &WhitelistModule::CmdMsgHandlerServicePresetList, false));
    RegisterTaskletCallback(RESET_LEARNING_KEY,
                            new Command(this, &WhitelistModule::CmdMsgHandlerResetLeaningStatus, false));
    RegisterTaskletCallback(START_DETECT_KEY, new Command(this, &WhitelistModule::CmdMsgHandlerStartDetect, false));
    // Without memory for it the key is registered with no callback: policies are then refused, and the
    // module still answers commands.
    RegisterPolicyCallback(POLICY_KEY, new (std::nothrow) Framework::PolicyCallback<WhitelistModule>(
                                           this, &WhitelistModule::RefreshFeaturePolicy));
    if (!ConfigManager::Instance()->Init()) {
        moduleLog.Error("Init whitelist Config Failed");
    }
    Framework::Module::Init();
    return 0;
}

int WhitelistModule::UnInit() {
    UnRegisterPolicyCallback(POLICY_KEY);
    for (const char* key :
         {SERVER_TRUST_LIST_KEY, OS_PRESET_LIST_KEY, SERVICE_PRESET_LIST_KEY, RESET_LEARNING_KEY, START_DETECT_KEY}) {
        UnRegisterTaskletCallback(key);
    }
    return Framework::Module::UnInit();
}

Framework::Policy* WhitelistModule::RefreshFeaturePolicy(const std::string& /*key*/, const std::string& policyJson,
                                                         Framework::Policy*& current) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(policyJson, document) != 0) {
        moduleLog.Error("Parse Policy Failed");
        return nullptr;
    }
    moduleLog.Debug("policy is [%s]", policyJson);
    const std::string moduleName = SDK::JsonUtils::GetStringValue(document, "module_name", "");
    if (moduleName != MODULE_NAME) {
        moduleLog.Error("The policy content(moduleName=%s) does not belong to module_whitelist", moduleName);
        return nullptr;
    }
    Json::Value content;
    if (!utils::TakePolicyContent(document, content)) {
        return nullptr;
    }
    if (SDK::JsonUtils::GetBoolValue(content, "dir_mod", false)) {
        RegisterTask(new SpecifiedFileAuditTask, false);
    } else {
        RegisterTask(new FullProcTask, false);
    }
    RegisterTask(new ProcessManagerTask, false);
    RegisterTask(new LearnStatusCheckTask, false);

    const std::string featureName = SDK::JsonUtils::GetStringValue(document, "feature_name", "");
    if (featureName != FEATURE_NAME) {
        moduleLog.Error("unknown feature name");
        return nullptr;
    }
    auto policy = std::make_unique<WhitelistPolicy>(FEATURE_NAME);
    policy->SetName(featureName);
    policy->SetFeatureHash(SDK::JsonUtils::GetStringValue(document, "feature_hash", ""));
    policy->SetEnabled(SDK::JsonUtils::GetStringValue(document, "enabled", "") == "enabled");
    policy->Parse(policyJson);
    if (current != nullptr) {
        current->SetSuperseded(true);
    }
    return policy.release();
}

int WhitelistModule::CmdMsgHandlerServerTrustList(const std::string& cmd) {
    if (cmd.empty()) {
        return REFUSED;
    }
    ProcessManager::Instance()->SyncServerTrustProcess(cmd.data(), cmd.size());
    return DONE;
}

int WhitelistModule::CmdMsgHandlerOsPresetList(const std::string& cmd) {
    if (cmd.empty()) {
        return REFUSED;
    }
    ProcessManager::Instance()->SyncOsPresetProcess(cmd.data(), cmd.size());
    return DONE;
}

int WhitelistModule::CmdMsgHandlerServicePresetList(const std::string& cmd) {
    if (cmd.empty()) {
        return REFUSED;
    }
    ProcessManager::Instance()->SyncServicePresetProcess(cmd.data(), cmd.size());
    return DONE;
}

int WhitelistModule::CmdMsgHandlerResetLeaningStatus(const std::string& /*cmd*/) {
    ConfigManager::Instance()->ResetLearnModule();
    return DONE;
}

int WhitelistModule::CmdMsgHandlerStartDetect(const std::string& /*cmd*/) {
    ConfigManager::Instance()->StartDetectMod();
    return DONE;
}

} // namespace Engine

// The library's two exports. The framework owns what they return.

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::WhitelistModule;
}

extern "C" __attribute__((visibility("default"))) Framework::ModuleInspector* CreateModuleInspector() {
    return new Engine::WhitelistInspector;
}
