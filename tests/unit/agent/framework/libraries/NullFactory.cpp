#include "framework/Module.h"

extern "C" Framework::Module* CreateModule() {
    return nullptr;
}
