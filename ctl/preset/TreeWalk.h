#pragma once

#include <string>
#include <vector>

#include "ctl/preset/Candidate.h"
#include "ctl/preset/HostRoot.h"

namespace Ctl::Preset {

// All files with an executable bit in a directory of the host and below it. Links are not followed and
// other file systems not entered, so that neither /proc nor a network's share is walked through. What
// cannot be listed is remarked on. Throws Failure when it is no directory, or when interrupted.
std::vector<Candidate> WalkTree(const HostRoot& host, const std::string& directory, std::vector<Remark>& remarks);

} // namespace Ctl::Preset
