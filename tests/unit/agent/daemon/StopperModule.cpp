#include "framework/Module.h"
#include "sdk/ModuleLog.h"

namespace {

SDK::ModuleLog moduleLog("stopper");

// A module that cannot start and says why.
class StopperModule : public Framework::Module {
public:
    StopperModule() : Framework::Module("stopper_module") {}

    int Init() override {
        moduleLog.Error("the permission to stop is missing");
        constexpr int EX_NOPERM_STATUS = 77;
        return EX_NOPERM_STATUS;
    }
};

} // namespace

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new StopperModule;
}
