#include "ctl/preset/HostRoot.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ctl/Failure.h"

namespace Ctl::Preset {

namespace {

// The real path of an open directory (proc(5)); 0 or an errno value.
int ReadPath(int fd, std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size());
    if (length < 0) {
        return errno;
    }
    path.assign(target.data(), static_cast<std::size_t>(length));
    return 0;
}

// Links that are absolute, and "..", begin and end at `rootFd`. The C library has no wrapper for the call.
int OpenFolder(int rootFd, const std::string& folder) {
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT;
    return static_cast<int>(syscall(SYS_openat2, rootFd, folder.c_str(), &how, sizeof(how)));
}

} // namespace

HostRoot::HostRoot(const std::string& directory) : mFd(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    const int error = mFd < 0 ? errno : ReadPath(mFd, mPrefix);
    if (error != 0) {
        if (mFd >= 0) {
            close(mFd);
        }
        throw Failure("cannot open the directory [" + directory + "]: " + std::strerror(error));
    }
    if (mPrefix == "/") {
        mPrefix.clear();
    }
}

HostRoot::~HostRoot() {
    close(mFd);
}

std::optional<std::string> HostRoot::Resolve(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return std::nullopt;
    }
    const std::string folder = path.substr(0, slash);
    auto [known, isNew] = mFolders.try_emplace(folder);
    if (isNew) {
        std::string resolved;
        if (ResolveFolder(folder.empty() ? "/" : folder, resolved) == 0) {
            known->second = resolved == "/" ? "" : resolved;
        }
    }
    return known->second ? std::optional(*known->second + path.substr(slash)) : std::nullopt;
}

int HostRoot::ResolveFolder(const std::string& folder, std::string& resolved) const {
    const int fd = OpenFolder(mFd, folder);
    if (fd < 0) {
        return errno;
    }
    std::string path;
    const int error = ReadPath(fd, path);
    close(fd);
    if (error != 0) {
        return error;
    }
    resolved = path.substr(mPrefix.size());
    if (resolved.empty()) {
        resolved = "/";
    }
    return 0;
}

} // namespace Ctl::Preset
