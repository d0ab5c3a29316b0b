#pragma once

#include <string>

namespace Engine {

// The module's files below the installation path.
const std::string CONFIG_FILE = "conf/modwhitelist.ini";
const std::string OS_PRESET_FILE = "conf/osPresetProcess.dat";
const std::string SERVICE_PRESET_FILE = "conf/servicePresetProcess.dat";

} // namespace Engine
