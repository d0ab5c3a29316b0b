#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/ModuleInspector.h"
#include "modules/ProcsMessage.h"
#include "modules/ProcsRegistMessage.h"
#include "sdk/ModuleLog.h"

// A module that fails, for the daemon to load beside the others. CORVALENT_FAULT says where and how:
// "PLACE:HOW", and CORVALENT_FAULTY_NAME what the module calls itself; PLACE being one of the names below and HOW "std"
// (throws a std::exception), "int" (throws something else) or "hang" (never comes back).
namespace {

SDK::ModuleLog moduleLog("faulty");

std::string GetFault() {
    const char* wanted = std::getenv("CORVALENT_FAULT");
    return wanted == nullptr ? "" : wanted;
}

bool IsWanted(const std::string& place) {
    return GetFault().starts_with(place + ":");
}

void FailAt(const std::string& place) {
    const std::string fault = GetFault();
    if (fault == place + ":std") {
        throw std::runtime_error("faulty on purpose");
    }
    if (fault == place + ":int") {
        throw 42;
    }
    while (fault == place + ":hang") {
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

// Listens to process events under a name that comes first among the subscribers.
class FaultyTask : public Framework::Task {
public:
    FaultyTask() : Task("a_faulty_task", "faulty", Framework::TaskCondition::TaskType::Thread, 64) {}

    bool Init() override {
        FailAt("task.Init");
        return Task::Init();
    }

    bool UnInit() override {
        FailAt("task.UnInit");
        return Task::UnInit();
    }

    int Run() override {
        for (const unsigned int kind : {Engine::ProcsMessage::KIND_EXEC, Engine::ProcsMessage::KIND_FORK}) {
            SendDirectMsg("procs_real_task", new Engine::ProcsRegistMessage(kind, this));
        }
        FailAt("task.Run");
        constexpr int WAIT_MS = 10000;
        constexpr int BATCH = 16;
        while (state() != TASK_CANCELLING) {
            GetEventWaiter().WaitAndHandleEvent(WAIT_MS, BATCH);
        }
        FailAt("task.Stop");
        return 0;
    }

    bool InterceptMsg(std::shared_ptr<Framework::Message>& /*message*/) override {
        FailAt("task.InterceptMsg");
        return false;
    }

    int HandleMsg(const Framework::Message* /*message*/) override {
        FailAt("task.HandleMsg");
        return 0;
    }
};

class FaultyModule : public Framework::Module {
public:
    FaultyModule() : Framework::Module(GetName()) {}

    int Init() override {
        FailAt("module.Init");
        RegisterTaskletCallback("faulty", new Framework::TaskletCallback(this, &FaultyModule::Obey, false));
        if (IsWanted("module.Policy")) {
            RegisterPolicyCallback("10001", new Framework::PolicyCallback(this, &FaultyModule::Refresh));
        }
        RegisterTask(new FaultyTask, true);
        moduleLog.Information("started");
        return Framework::Module::Init();
    }

    int UnInit() override {
        const int result = Framework::Module::UnInit();
        FailAt("module.UnInit");
        return result;
    }

private:
    static std::string GetName() {
        const char* name = std::getenv("CORVALENT_FAULTY_NAME");
        return name == nullptr ? "faulty_module" : name;
    }

    Framework::Policy* Refresh(const std::string& /*key*/, const std::string& /*document*/,
                               Framework::Policy*& /*current*/) {
        FailAt("module.Policy");
        return nullptr;
    }

    int Obey(const std::string& /*command*/) {
        moduleLog.Information("obeying");
        FailAt("module.Command");
        return 0;
    }
};

class FaultyInspector : public Framework::ModuleInspector {
public:
    Json::Value Ask(const Json::Value& /*request*/) override {
        FailAt("inspector.Ask");
        return Json::Value(Json::objectValue);
    }
};

} // namespace

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    FailAt("CreateModule");
    return new FaultyModule;
}

extern "C" __attribute__((visibility("default"))) Framework::ModuleInspector* CreateModuleInspector() {
    FailAt("CreateModuleInspector");
    return new FaultyInspector;
}
