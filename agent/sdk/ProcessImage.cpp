#include "sdk/ProcessImage.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/ImagePath.h"
#include "agent/sdk/WithoutThrowing.h"

namespace SDK {

namespace {

thread_local const ProcessImage* youngest = nullptr;

} // namespace

// The path is read from the descriptor, not from the process again: that one may run something else by now.
ProcessImage::ProcessImage(int pid) : mPid(pid), mOuter(youngest) {
    WithoutThrowing([&] {
        const std::string link = "/proc/" + std::to_string(pid) + "/exe";
        FileDescriptor file(open(link.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        if (!file.IsOpen()) {
            return errno;
        }
        const int result = ReadImagePath("/proc/self/fd/" + std::to_string(file.Get()), mPath);
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

const ProcessImage* ProcessImage::Of(int pid) {
    return youngest != nullptr && youngest->mFd >= 0 && youngest->mPid == pid ? youngest : nullptr;
}

const ProcessImage* ProcessImage::At(const std::string& path) {
    return youngest != nullptr && youngest->mFd >= 0 && youngest->mPath == path ? youngest : nullptr;
}

} // namespace SDK
