#pragma once

#include <string>

namespace Daemon {

// Tells the service manager about the daemon's state ("READY=1", "STOPPING=1") as sd_notify(3) lays it
// down: one datagram to the Unix socket that NOTIFY_SOCKET names. Nothing happens without that
// variable, and a failure is ignored: there is nobody to tell.
void NotifyServiceManager(const std::string& state);

} // namespace Daemon
