#pragma once

#include <chrono>
#include <string>

#include "ctl/doctor/Finding.h"

namespace Ctl::Doctor {

// How long the history may be read through at most.
constexpr std::chrono::seconds HISTORY_DEADLINE{30};

// Reads the database of reports through (PRAGMA quick_check), over a connection that may only read and
// holds up no writer.
Finding CheckHistory(const std::string& path, std::chrono::milliseconds deadline);

} // namespace Ctl::Doctor
