#include "agent/framework/ModuleLibrary.h"

#include <dlfcn.h>

#include "agent/framework/Guard.h"
#include "sdk/ModuleLog.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

std::string LastLoaderError() {
    const char* text = dlerror();
    return text == nullptr ? "unknown error" : text;
}

// Null when the library has no such symbol.
template <typename Function> Function FindFunction(void* library, const char* name) {
    return reinterpret_cast<Function>(dlsym(library, name));
}

std::shared_ptr<ModuleInspector> MakeInspector(void* library, const std::string& path) {
    ModuleInspector* inspector = nullptr;
    const auto create = FindFunction<CreateModuleInspectorFunction>(library, "CreateModuleInspector");
    if (create != nullptr) {
        CallGuarded("module", path, "CreateModuleInspector", [&] { inspector = create(); });
        if (inspector == nullptr) {
            moduleLog.Error("[%s]: CreateModuleInspector made no inspector, the module cannot be asked", path);
        }
    }
    return std::shared_ptr<ModuleInspector>(inspector);
}

} // namespace

bool LoadModuleLibrary(const std::string& path, LoadedModule& loaded, std::string& reason) {
    // dlopen takes an empty path for the program itself.
    void* const library = path.empty() ? nullptr : dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        reason = path.empty() ? "no path given" : LastLoaderError();
        return false;
    }
    const auto create = FindFunction<CreateModuleFunction>(library, "CreateModule");
    if (create == nullptr) {
        reason = path + " is no module: it exports no CreateModule";
        return false;
    }
    Module* module = nullptr;
    if (!CallGuarded("module", path, "CreateModule", [&] { module = create(); })) {
        reason = "CreateModule of " + path + " threw";
        return false;
    }
    if (module == nullptr) {
        reason = "CreateModule of " + path + " made no module";
        return false;
    }
    loaded.module = module;
    loaded.inspector = MakeInspector(library, path);
    return true;
}

} // namespace Framework
