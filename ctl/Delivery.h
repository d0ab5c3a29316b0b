#pragma once

#include <string>

#include <json/value.h>

namespace Ctl {

// Says on standard output that it was done, and on standard error what the module noted on the way.
void PrintAccepted(const std::string& what, const Json::Value& answer);

} // namespace Ctl
