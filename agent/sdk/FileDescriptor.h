#pragma once

#include <cerrno>
#include <cstddef>
#include <utility>

#include <unistd.h>

namespace SDK {

// Owns one file descriptor (or none, -1) and closes it at the end of its scope.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : mFd(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            Reset(std::exchange(other.mFd, -1));
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { Reset(); }

    int Get() const { return mFd; }
    bool IsOpen() const { return mFd >= 0; }

    // Gives the descriptor, open as it is, to the caller.
    int Release() { return std::exchange(mFd, -1); }

    void Reset(int fd = -1) {
        if (mFd >= 0) {
            close(mFd);
        }
        mFd = fd;
    }

private:
    int mFd = -1;
};

// read(2), taken up again when a signal interrupts it.
inline ssize_t ReadRetrying(int fd, void* buffer, std::size_t length) {
    ssize_t count = 0;
    do {
        count = read(fd, buffer, length);
    } while (count < 0 && errno == EINTR);
    return count;
}

// Writes all bytes; 0 or an errno value. What was written before a failure stays written.
inline int WriteFully(int fd, const char* data, std::size_t length) {
    while (length > 0) {
        const ssize_t count = write(fd, data, length);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        data += count;
        length -= static_cast<std::size_t>(count);
    }
    return 0;
}

} // namespace SDK
