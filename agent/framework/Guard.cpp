#include "agent/framework/Guard.h"

#include "framework/Counters.h"
#include "sdk/ModuleLog.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

void ReportException(const std::string& kind, const std::string& name, const char* where, const std::string& what) {
    Counters::Of(kind + ".exceptions").Add();
    moduleLog.Error("%s [%s]: exception in %s: %s", kind, name, where, what);
}

} // namespace Framework
