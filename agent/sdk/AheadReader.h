#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

namespace SDK {

// Reads a file on a thread of its own, while the caller works on what was read before.
//
// There are two buffers. Each belongs to one side at a time: empty to the reading thread, from its reading on to
// the caller, who gives it back by asking for the next.
//
// The owner's one thread calls; the reader's thread lasts as long as the object.
class AheadReader {
public:
    // What is worth a thread: with less, starting it takes what it saves. Measured on digests, where reading is
    // an eighth of the time.
    static constexpr std::uint64_t WORTHWHILE_BYTES = 4U << 20U;

    // Of at most the first `maxBytes` bytes from where `fd` stands; it stays the caller's, and open, as long as
    // the object. Throws std::system_error when there can be no thread, std::bad_alloc.
    AheadReader(int fd, std::uint64_t maxBytes);
    ~AheadReader();
    AheadReader(const AheadReader&) = delete;
    AheadReader& operator=(const AheadReader&) = delete;

    // The next bytes, good until the next call; none at the end. 0, or the errno value of the reading. Not to be
    // called again after the end or an error.
    int Next(const char*& data, std::size_t& length);

private:
    static constexpr std::size_t BUFFER_BYTES = 256U << 10U;

    struct Buffer {
        std::unique_ptr<char[]> bytes;
        std::size_t length = 0;
        int error = 0;
    };

    void ReadUntilEnd();
    bool AwaitEmptyBuffer();
    bool Fill(Buffer& buffer);

    const int mFd;
    std::uint64_t mLeft; // reading thread only

    std::array<Buffer, 2> mBuffers; // filled and emptied by turns
    std::size_t mNext = 0;          // caller only: the buffer that it gets next
    bool mHolds = false;            // caller only: it has a buffer to give back

    // The next two under mMutex.
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::size_t mFilled = 0; // buffers that belong to the caller
    bool mStopped = false;

    std::thread mThread; // last, so that all it uses is there
};

} // namespace SDK
