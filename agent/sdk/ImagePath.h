#pragma once

#include <string>

namespace SDK {

// The target of a symbolic link; 0 or an errno value, `target` untouched then.
int ReadLink(const std::string& link, std::string& target);

// The path of the image that a link of /proc leads to: its target without the " (deleted)" that the kernel
// appends once the name is gone (fs/d_path.c). A file that is really called so keeps its name. 0 or an errno
// value, `path` untouched then.
int ReadImagePath(const std::string& link, std::string& path);

} // namespace SDK
