#pragma once

#include <cstdint>

#include <json/value.h>

#include "ProcessInfo.h"

namespace Engine {

// How modes, lists and entries are shown to an operator.

const char* GetModName(std::int64_t mod);

// "local", "server", "os", "service"; "none" for what is no list (ProcessManager::TrustSource).
const char* GetListName(int source);

// {"filename", "sha256", "os", "version"}
Json::Value DescribePresetEntry(const PresetProcessInfo& info);

} // namespace Engine
