#pragma once

#include <cerrno>

#include <sys/stat.h>

namespace SDK {

// What the agent writes in place goes to a regular file that has one name: 0 for that. Otherwise why it is not
// written to: ELOOP a symbolic link, EISDIR a directory, EMLINK a file that has other names, too, and may
// belong to somebody else under these, EINVAL a FIFO, a device or a socket.
inline int CheckOwnFile(const struct stat& file) {
    if (S_ISREG(file.st_mode)) {
        return file.st_nlink > 1 ? EMLINK : 0;
    }
    if (S_ISLNK(file.st_mode)) {
        return ELOOP;
    }
    return S_ISDIR(file.st_mode) ? EISDIR : EINVAL;
}

} // namespace SDK
