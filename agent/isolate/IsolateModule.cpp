#include "agent/isolate/IsolateModule.h"

#include <sysexits.h>

#include "agent/isolate/IsolateWorkTask.h"

namespace Engine {

IsolateModule::IsolateModule() : Framework::Module(NAME) {}

int IsolateModule::Init() {
    if (const int result = Framework::Module::Init(); result != 0) {
        return result;
    }
    return RegisterTask(new IsolateWorkTask, true) ? 0 : EX_SOFTWARE;
}

} // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::IsolateModule;
}
