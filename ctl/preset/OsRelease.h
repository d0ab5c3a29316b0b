#pragma once

#include <string>

#include "ctl/preset/HostRoot.h"

namespace Ctl::Preset {

// The host's operating system as os-release(5) names it, "ID VERSION_ID": "debian 12". The version is
// left out where there is none; "linux", as that page has it, where there is no such file.
std::string NameOs(const HostRoot& host);

} // namespace Ctl::Preset
