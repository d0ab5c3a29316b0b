#include "agent/daemon/Modules.h"

namespace Daemon {

Json::Value AskModule(const Framework::Engine& engine, const char* module, const char* query) {
    Json::Value question(Json::objectValue);
    question["query"] = query;
    Json::Value answer = engine.Ask(module, question);
    return answer.isObject() ? answer : Json::Value(Json::objectValue);
}

} // namespace Daemon
