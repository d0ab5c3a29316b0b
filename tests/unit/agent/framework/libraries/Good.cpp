#include "framework/Module.h"
#include "framework/ModuleInspector.h"

namespace {

class Inspector : public Framework::ModuleInspector {
public:
    Json::Value Ask(const Json::Value& request) override {
        Json::Value answer(Json::objectValue);
        answer["asked"] = request["query"];
        return answer;
    }
};

} // namespace

extern "C" Framework::Module* CreateModule() {
    return new Framework::Module("good_module");
}

extern "C" Framework::ModuleInspector* CreateModuleInspector() {
    return new Inspector;
}
