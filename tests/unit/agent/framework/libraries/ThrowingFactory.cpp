#include <stdexcept>

#include "framework/Module.h"

extern "C" Framework::Module* CreateModule() {
    throw std::runtime_error("no module today");
}
