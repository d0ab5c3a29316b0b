#pragma once

#include <string>

namespace Daemon {

// Holds the lock file of an installation root, so that only one daemon works in it (flock(2)). The
// kernel lets go of it when the process ends, however it ends; the file stays.
class RootLock {
public:
    enum class Result { HELD, TAKEN_BY_ANOTHER, FAILED };

    RootLock() = default;
    ~RootLock();
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;

    // Never waits. On success the file holds this process's id in decimal; otherwise `reason` says
    // why not and, if it is known, which process has the lock.
    Result Acquire(const std::string& path, std::string& reason);

private:
    int mFd = -1;
};

} // namespace Daemon
