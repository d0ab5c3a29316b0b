#pragma once

#include <memory>
#include <string>

#include <Poco/AutoPtr.h>

#include "framework/Module.h"
#include "framework/ModuleInspector.h"

namespace Framework {

// What a module library's factories made.
//
// The inspector stands first so that it outlives the module.
struct LoadedModule {
    // Null when the module cannot be asked.
    std::shared_ptr<ModuleInspector> inspector;
    Poco::AutoPtr<Module> module;
};

// Loads the library at `path` and calls its factories. False, with the reason, when that cannot be
// done. The library is never unloaded, not even when it is refused: its singletons, its loggers, what
// it registered to be called at exit and threads that it may have started go on referring to its code.
bool LoadModuleLibrary(const std::string& path, LoadedModule& loaded, std::string& reason);

} // namespace Framework
