#include "agent/daemon/RootLock.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/OwnFile.h"

namespace Daemon {

namespace {

std::string ReadOwner(int fd) {
    std::array<char, 32> text{};
    const ssize_t length = pread(fd, text.data(), text.size(), 0);
    std::string owner(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    return owner.substr(0, owner.find('\n'));
}

} // namespace

RootLock::~RootLock() {
    if (mFd >= 0) {
        close(mFd);
    }
}

RootLock::Result RootLock::Acquire(const std::string& path, std::string& reason) {
    mFd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    struct stat file {};
    if (mFd < 0 || fstat(mFd, &file) != 0) {
        reason = "cannot open [" + path + "]: " + std::strerror(errno);
        return Result::FAILED;
    }
    if (const int error = SDK::CheckOwnFile(file); error != 0) {
        reason = "will not write to [" + path + "]: " + std::strerror(error);
        return Result::FAILED;
    }
    if (flock(mFd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            reason = "cannot lock [" + path + "]: " + std::strerror(errno);
            return Result::FAILED;
        }
        reason = "another daemon (pid " + ReadOwner(mFd) + ") holds [" + path + "]";
        return Result::TAKEN_BY_ANOTHER;
    }
    const std::string owner = std::to_string(getpid()) + "\n";
    if (ftruncate(mFd, 0) != 0 || pwrite(mFd, owner.data(), owner.size(), 0) != static_cast<ssize_t>(owner.size())) {
        reason = "cannot write [" + path + "]: " + std::strerror(errno);
        return Result::FAILED;
    }
    return Result::HELD;
}

} // namespace Daemon
