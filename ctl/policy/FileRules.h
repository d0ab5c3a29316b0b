#pragma once

#include <json/value.h>

#include "ctl/policy/PolicyCheck.h"

namespace Ctl {

// The problems of "dirs" and "exts", which directory mode requires, in the policy's "content".
std::vector<PolicyProblem> CheckFileRules(const Json::Value& content);

} // namespace Ctl
