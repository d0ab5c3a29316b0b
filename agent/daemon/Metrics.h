#pragma once

#include <string>

#include <json/value.h>

namespace Daemon {

// The agent's metrics in the text that Exposition writes: what `status` (see Status) tells, every
// counter, the histograms and what the process uses. docs/reference.md lists them. Whatever the status
// does not know is left out.
std::string RenderMetrics(const Json::Value& status);

} // namespace Daemon
