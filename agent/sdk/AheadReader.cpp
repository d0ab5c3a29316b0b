#include "agent/sdk/AheadReader.h"

#include <algorithm>
#include <cerrno>

#include <pthread.h>

#include "agent/sdk/FileDescriptor.h"

namespace SDK {

AheadReader::AheadReader(int fd, std::uint64_t maxBytes) : mFd(fd), mLeft(maxBytes) {
    for (Buffer& buffer : mBuffers.All()) {
        buffer.bytes = std::make_unique_for_overwrite<char[]>(BUFFER_BYTES);
    }
    mThread = std::thread([this] { ReadUntilEnd(); });
}

AheadReader::~AheadReader() {
    mBuffers.Stop();
    mThread.join();
}

int AheadReader::Next(const char*& data, std::size_t& length) {
    if (mHolds) {
        mBuffers.Emptied();
    }
    const Buffer& buffer = *mBuffers.AwaitFilled();
    mHolds = true;
    data = buffer.bytes.get();
    length = buffer.length;
    return buffer.error;
}

void AheadReader::ReadUntilEnd() {
    pthread_setname_np(pthread_self(), "read_ahead");
    bool goesOn = true;
    while (goesOn) {
        Buffer* const buffer = mBuffers.AwaitEmpty();
        goesOn = buffer != nullptr && Fill(*buffer);
        if (buffer != nullptr) {
            mBuffers.Filled();
        }
    }
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
