#include "sdk/ProcessImage.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/ImagePath.h"
#include "agent/sdk/WithoutThrowing.h"
#include "sdk/Shortage.h"

namespace SDK {

namespace {

thread_local const ProcessImage* youngest = nullptr;

} // namespace

// The path is read from the descriptor, not from the process again: that one may run something else by now.
ProcessImage::ProcessImage(int pid) : mPid(pid), mOuter(youngest) {
    WithoutThrowing([&] {
        mLink = "/proc/" + std::to_string(pid) + "/exe";
        FileDescriptor file(open(mLink.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
        if (!file.IsOpen()) {
            Shortage::Note(errno);
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

const ProcessImage* ProcessImage::Of(int pid) {
    return youngest != nullptr && !youngest->mPath.empty() && youngest->mPid == pid ? youngest : nullptr;
}

const ProcessImage* ProcessImage::At(const std::string& path) {
    return youngest != nullptr && !youngest->mPath.empty() && youngest->mPath == path ? youngest : nullptr;
}

} // namespace SDK
