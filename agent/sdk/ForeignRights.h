#pragma once

#include <string>

#include <sys/stat.h>

namespace SDK {

// What is wrong with who may change a file or folder of the agent's: "PATH belongs to user N" when that is
// neither root nor this process's user, "PATH has mode NNNN" when a group or everybody may write to it; ""
// when nothing is.
std::string FindForeignRights(const std::string& path, const struct stat& file);

} // namespace SDK
