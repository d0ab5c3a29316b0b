#include "agent/sdk/AheadReader.h"

#include <algorithm>
#include <cerrno>

#include <pthread.h>

#include "agent/sdk/FileDescriptor.h"

namespace SDK {

AheadReader::AheadReader(int fd, std::uint64_t maxBytes) : mFd(fd), mLeft(maxBytes) {
    for (Buffer& buffer : mBuffers) {
        buffer.bytes = std::make_unique_for_overwrite<char[]>(BUFFER_BYTES);
    }
    mThread = std::thread([this] { ReadUntilEnd(); });
}

AheadReader::~AheadReader() {
    {
        const std::lock_guard guard(mMutex);
        mStopped = true;
    }
    mChanged.notify_all();
    mThread.join();
}

int AheadReader::Next(const char*& data, std::size_t& length) {
    std::unique_lock lock(mMutex);
    if (mHolds) {
        --mFilled;
        mChanged.notify_all();
    }
    mChanged.wait(lock, [this] { return mFilled > 0; });
    mHolds = true;
    const Buffer& buffer = mBuffers[mNext];
    mNext = (mNext + 1) % mBuffers.size();
    data = buffer.bytes.get();
    length = buffer.length;
    return buffer.error;
}

void AheadReader::ReadUntilEnd() {
    pthread_setname_np(pthread_self(), "read_ahead");
    for (std::size_t next = 0; AwaitEmptyBuffer(); next = (next + 1) % mBuffers.size()) {
        const bool goesOn = Fill(mBuffers[next]);
        {
            const std::lock_guard guard(mMutex);
            ++mFilled;
        }
        mChanged.notify_all();
        if (!goesOn) {
            return;
        }
    }
}

// False when nobody wants more.
bool AheadReader::AwaitEmptyBuffer() {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return mStopped || mFilled < mBuffers.size(); });
    return !mStopped;
}

// False at the end and after an error.
bool AheadReader::Fill(Buffer& buffer) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(BUFFER_BYTES, mLeft));
    const ssize_t count = ReadRetrying(mFd, buffer.bytes.get(), wanted);
    buffer.error = count < 0 ? errno : 0;
    buffer.length = count < 0 ? 0 : static_cast<std::size_t>(count);
    mLeft -= buffer.length;
    return buffer.length > 0;
}

} // namespace SDK
