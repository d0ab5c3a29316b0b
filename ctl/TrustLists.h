#pragma once

#include <string>

#include <json/value.h>

#include "ctl/Client.h"

namespace Ctl {

// The keys of the commands that replace a list.
inline constexpr const char* SERVER_LIST_KEY = "whitelist_10001";
inline constexpr const char* OS_PRESET_KEY = "whitelist_10002";
inline constexpr const char* SERVICE_PRESET_KEY = "whitelist_10003";

// True for the names of the preset lists, "os" and "service"; the others are "local" and "server".
bool IsPresetList(const std::string& list);

// The entries (an array) of the list of that name as the daemon has them now. Throws Failure.
Json::Value AskForTrustList(const Client& client, const std::string& list);

// Says why the agent did not take a list that it was sent: with what the module noted on the way, else
// with `fallback`.
std::string ExplainRefusal(const Json::Value& answer, const std::string& fallback);

} // namespace Ctl
