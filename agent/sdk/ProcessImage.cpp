#include "sdk/ProcessImage.h"

#include <cerrno>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/ImagePath.h"
#include "agent/sdk/StatTime.h"
#include "agent/sdk/WithoutThrowing.h"
#include "sdk/Shortage.h"

namespace SDK {

namespace {

thread_local const ProcessImage* youngest = nullptr;

// -1 with errno.
int OpenImage(const std::string& link) {
    const int fd = open(link.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        errno = Shortage::Note(errno);
    }
    return fd;
}

ImageIdentity IdentityOf(const struct stat& info) {
    return {info.st_dev, info.st_ino, info.st_size, ToNs(info.st_mtim), ToNs(info.st_ctim)};
}

} // namespace

// The path is read from the descriptor, not from the process again: that one may run something else by now.
ProcessImage::ProcessImage(int pid) : mPid(pid), mOuter(youngest) {
    WithoutThrowing([&] {
        mLink = ImageLink(pid);
        FileDescriptor file(OpenImage(mLink));
        if (!file.IsOpen() && errno == ENOENT) {
            if (std::optional<std::string> other = FindOtherImageLink(pid)) {
                mLink = std::move(*other);
                file.Reset(OpenImage(mLink));
            }
        }
        const int result = ReadImagePath(file.IsOpen() ? "/proc/self/fd/" + std::to_string(file.Get()) : mLink, mPath);
        if (result == 0) {
            mFd = file.Release();
        }
        return result;
    });
    youngest = this;
}

ProcessImage::~ProcessImage() {
    youngest = mOuter;
    if (mFd >= 0) {
        close(mFd);
    }
}

std::optional<ImageIdentity> ProcessImage::Identify(int pid) {
    struct stat info {};
    const auto ask = [&] { return StatImage(pid, info) ? 0 : ENOENT; };
    return WithoutThrowing(ask) == 0 ? std::optional(IdentityOf(info)) : std::nullopt;
}

std::optional<ImageIdentity> ProcessImage::GetIdentity() const {
    struct stat info {};
    return mFd >= 0 && fstat(mFd, &info) == 0 ? std::optional(IdentityOf(info)) : std::nullopt;
}

const ProcessImage* ProcessImage::Of(int pid) {
    return youngest != nullptr && !youngest->mPath.empty() && youngest->mPid == pid ? youngest : nullptr;
}

const ProcessImage* ProcessImage::At(const std::string& path) {
    return youngest != nullptr && !youngest->mPath.empty() && youngest->mPath == path ? youngest : nullptr;
}

} // namespace SDK
