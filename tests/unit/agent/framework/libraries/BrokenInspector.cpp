#include <stdexcept>

#include "framework/Module.h"
#include "framework/ModuleInspector.h"

extern "C" Framework::Module* CreateModule() {
    return new Framework::Module("module_with_broken_inspector");
}

extern "C" Framework::ModuleInspector* CreateModuleInspector() {
    throw std::runtime_error("no inspector today");
}
