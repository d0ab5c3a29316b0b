#pragma once

#include <json/value.h>

#include "framework/Engine.h"

namespace Daemon {

// The modules that the daemon asks, by the names that they bear.
constexpr const char* WHITELIST_MODULE = "whitelist_module";
constexpr const char* REPORTS_MODULE = "data_comm_module";
constexpr const char* FILES_MODULE = "filenotify";

// Asks the module's inspector a question that consists of its name alone ("status"). An object;
// {"error": TEXT} when there is no answer. Any thread.
Json::Value AskModule(const Framework::Engine& engine, const char* module, const char* query = "status");

} // namespace Daemon
