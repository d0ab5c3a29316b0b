#pragma once

#include <optional>
#include <string>

#include <sys/stat.h>

namespace SDK {

// "/proc/PID/exe", which leads to the image of the process; nowhere (ENOENT) once its first thread has ended, also
// while others go on.
std::string ImageLink(int pid);

// The link of one of the others then: "/proc/PID/task/TID/exe". Nothing when there is none: the process is gone, has
// ended, or is a kernel thread.
std::optional<std::string> FindOtherImageLink(int pid);

// What the image is, by either link, as stat(2) has it. False when there is none.
bool StatImage(int pid, struct stat& image);

// The target of a symbolic link; 0 or an errno value, `target` untouched then.
int ReadLink(const std::string& link, std::string& target);

// The path of the image that a link of /proc leads to: its target without the " (deleted)" that the kernel
// appends once the name is gone (fs/d_path.c). A file that is really called so keeps its name. 0 or an errno
// value, `path` untouched then.
int ReadImagePath(const std::string& link, std::string& path);

} // namespace SDK
