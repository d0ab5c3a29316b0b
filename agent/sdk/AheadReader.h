#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>

#include "agent/sdk/TurnTaking.h"

namespace SDK {

// Reads a file on a thread of its own, while the caller works on what was read before.
//
// There are two buffers, which go to and fro between the two; the caller gives one back by asking for the next.
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
    bool Fill(Buffer& buffer);

    const int mFd;
    std::uint64_t mLeft; // reading thread only

    TurnTaking<Buffer> mBuffers;
    bool mHolds = false; // caller only: it has a buffer to give back

    std::thread mThread; // last, so that all it uses is there
};

} // namespace SDK
