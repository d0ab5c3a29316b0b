#pragma once

#include <optional>

#include "ConfigManager.h"
#include "sdk/ProcessImage.h"

namespace Engine {

// Holds the image of a process that is to be judged: judged is what runs. Not while the module learns:
// learned is what lies at the path, for that is what the next start from there will run. Otherwise a program
// that another mount namespace shows at a path could take the place of the host's own in the list.
inline std::optional<SDK::ProcessImage> HoldJudgedImage(int pid) {
    return ConfigManager::Instance()->GetMod() == MOD_LEARN ? std::optional<SDK::ProcessImage>()
                                                            : std::optional<SDK::ProcessImage>(std::in_place, pid);
}

// The same of a process that runs already: only directory mode judges those.
inline std::optional<SDK::ProcessImage> HoldImageOfRow(int pid) {
    return ConfigManager::Instance()->GetDirMod() ? HoldJudgedImage(pid) : std::optional<SDK::ProcessImage>();
}

} // namespace Engine
