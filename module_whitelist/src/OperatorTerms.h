#pragma once

#include <cstdint>

#include <json/value.h>

#include "ProcessInfo.h"

namespace Engine {

// How modes, lists, entries and blocking are shown to an operator.

const char* GetModName(std::int64_t mod);

// "local", "server", "os", "service"; "none" for what is no list (ProcessManager::TrustSource).
const char* GetListName(int source);

// {"name", "path", "hash", "size", "type"}, as the lists are stored. The size of a file that is not on this
// host is the one that the list gives: an entry of size 0 would not be taken back from an exported list.
Json::Value DescribeEntry(const ProcessInfo& info);

// {"filename", "sha256", "os", "version"}
Json::Value DescribePresetEntry(const PresetProcessInfo& info);

// Whether an untrusted program is killed in detection.
bool IsBlockingInForce(bool directoryMode);

// {"policy", "entries", "floor", "in_force"}: whether the policy asks for it, the entries that count and
// how many have to be exceeded (0 in directory mode), and what comes of it.
Json::Value DescribeBlocking(bool directoryMode);

} // namespace Engine
