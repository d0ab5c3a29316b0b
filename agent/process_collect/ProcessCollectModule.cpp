#include "agent/process_collect/ProcessCollectModule.h"

#include <memory>
#include <string>
#include <utility>

#include <sysexits.h>

#include "agent/process_collect/ProcConnector.h"
#include "agent/process_collect/ProcsRealTask.h"
#include "agent/process_collect/ProcsScanTask.h"
#include "sdk/ModuleLog.h"

namespace Engine {

static SDK::ModuleLog moduleLog("process_collect");

ProcessCollectModule::ProcessCollectModule() : Framework::Module(NAME) {}

int ProcessCollectModule::Init() {
    if (const int result = Framework::Module::Init(); result != 0) {
        return result;
    }
    auto connector = std::make_unique<ProcConnector>();
    std::string problem;
    if (!connector->Open(problem)) {
        moduleLog.Error("process events cannot be received: %s", problem);
        return EX_NOPERM;
    }
    const bool registered =
        RegisterTask(new ProcsRealTask(std::move(connector)), true) && RegisterTask(new ProcsScanTask, true);
    return registered ? 0 : EX_SOFTWARE;
}

} // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::ProcessCollectModule;
}
