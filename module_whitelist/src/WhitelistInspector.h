#pragma once

#include "framework/ModuleInspector.h"

namespace Engine {

// What an operator can ask the module, from any thread:
//
//     {"query": "status"}
//         {"mode", "mode_name", "learned_minutes", "learn_period_minutes",
//          "lists": {"local", "server", "os_preset", "service_preset"},    entry counts
//          "blocking": OperatorTerms.h}
//     {"query": "trust_list", "list": "local" | "server" | "os" | "service"}
//         {"process_info": [ENTRY, …]}    in the form in which the list is stored
//     {"query": "verdict", "path": IMAGE}
//         {"path", "hash", "trusted", "list": "local" | "server" | "os" | "service" | "none"}
//         how detection would decide on a process of this image
//     {"query": "explain", "path": FILE} or {"query": "explain", "pid": PID}
//         everything that the decision rests on: TrustExplanation.h
class WhitelistInspector : public Framework::ModuleInspector {
public:
    Json::Value Ask(const Json::Value& request) override;
};

} // namespace Engine
