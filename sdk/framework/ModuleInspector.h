#pragma once

#include <json/value.h>

namespace Framework {

// Answers an operator's questions about a module: JSON in, JSON out, read-only.
//
// A module library that can be asked exports, beside CreateModule,
//
//     extern "C" Framework::ModuleInspector* CreateModuleInspector();
//
// The caller owns the result. Ask may be called from any thread while the module runs; it takes the
// module's own locks and changes nothing.
class ModuleInspector {
public:
    virtual ~ModuleInspector() = default;

    // `request` is an object with the member "query" (string) and whatever that query needs. The
    // answer is an object; a question that cannot be answered gets {"error": TEXT}. Never throws.
    virtual Json::Value Ask(const Json::Value& request) = 0;
};

} // namespace Framework

extern "C" {
using CreateModuleInspectorFunction = Framework::ModuleInspector* (*)();
}
