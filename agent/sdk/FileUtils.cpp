#include "sdk/FileUtils.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/AheadReader.h"
#include "agent/sdk/DigestCache.h"
#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/MessageDigest.h"
#include "agent/sdk/ReplacingFile.h"
#include "agent/sdk/WithoutThrowing.h"
#include "sdk/Histogram.h"
#include "sdk/ProcessImage.h"
#include "sdk/Shortage.h"
#include "sdk/TimeUtils.h"

namespace SDK {

namespace {

constexpr std::size_t BUFFER_BYTES = 65536;

int CheckRegular(const struct stat& info) {
    if (S_ISDIR(info.st_mode)) {
        return EISDIR;
    }
    return S_ISREG(info.st_mode) ? 0 : EINVAL;
}

int StatRegular(const std::string& path, struct stat& info) {
    return stat(path.c_str(), &info) == 0 ? CheckRegular(info) : errno;
}

// Looks before it opens, because opening alone already has effects on devices and on whoever waits
// at the other end of a FIFO; looks again afterwards, because the name may have been given to another
// file in between. O_NONBLOCK keeps the call from waiting in that case.
int OpenRegular(const std::string& path, int flags, FileDescriptor& file) {
    struct stat info {};
    const int looked = StatRegular(path, info);
    const bool mayCreate = (flags & O_CREAT) != 0;
    if (looked != 0 && !(looked == ENOENT && mayCreate)) {
        return looked;
    }
    FileDescriptor opened(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR));
    if (!opened.IsOpen() || fstat(opened.Get(), &info) != 0) {
        return Shortage::Note(errno);
    }
    const int result = CheckRegular(info);
    if (result == 0) {
        file = std::move(opened);
    }
    return result;
}

// Calls `take(data, length)` for at most the first `maxBytes` bytes of the file, until it returns
// other than 0.
template <typename Take> int ReadPieces(int fd, std::uint64_t maxBytes, Take take) {
    std::array<char, BUFFER_BYTES> buffer; // NOLINT(*-member-init): read fills what is used
    while (maxBytes > 0) {
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), maxBytes));
        const ssize_t count = ReadRetrying(fd, buffer.data(), wanted);
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            return 0;
        }
        const int result = take(buffer.data(), static_cast<std::size_t>(count));
        if (result != 0) {
            return result;
        }
        maxBytes -= static_cast<std::uint64_t>(count);
    }
    return 0;
}

int ReadContent(const std::string& path, std::string& content, std::uint64_t maxBytes) {
    FileDescriptor file;
    int result = OpenRegular(path, O_RDONLY, file);
    struct stat info {};
    if (result == 0 && fstat(file.Get(), &info) != 0) {
        result = errno;
    }
    if (result != 0) {
        return result;
    }
    const auto size = static_cast<std::uint64_t>(info.st_size);
    if (size > maxBytes) {
        return EFBIG;
    }
    std::string read;
    read.reserve(static_cast<std::size_t>(size));
    // One byte beyond the limit tells a file that grew from one that just fits.
    const std::uint64_t readLimit = maxBytes + 1 == 0 ? maxBytes : maxBytes + 1;
    result = ReadPieces(file.Get(), readLimit, [&](const char* data, std::size_t length) {
        read.append(data, length);
        return read.size() > maxBytes ? EFBIG : 0;
    });
    if (result == 0) {
        content = std::move(read);
    }
    return result;
}

int ReplaceFile(const std::string& path, const char* data, std::size_t length) {
    ReplacingFile file(path);
    int result = file.Open();
    if (result == 0) {
        result = file.Write(data, length);
    }
    return result == 0 ? file.Commit() : result;
}

// link(2) does not replace. Where both names are the file's already, rename(2) does nothing and leaves both.
int ReplaceName(const std::string& path, const std::string& name) {
    const std::string temporary = name + "~";
    unlink(temporary.c_str());
    if (link(path.c_str(), temporary.c_str()) != 0) {
        return errno;
    }
    const int result = rename(temporary.c_str(), name.c_str()) == 0 ? 0 : errno;
    unlink(temporary.c_str());
    return result;
}

int AppendToFile(const std::string& path, const char* data, std::size_t length) {
    FileDescriptor file;
    const int result = OpenRegular(path, O_WRONLY | O_APPEND | O_CREAT, file);
    return result == 0 ? WriteFully(file.Get(), data, length) : result;
}

// Null for a file that is not worth a thread, and when there can be none.
std::unique_ptr<AheadReader> ReadAhead(int fd, std::uint64_t maxBytes) {
    struct stat info {};
    if (maxBytes < AheadReader::WORTHWHILE_BYTES || fstat(fd, &info) != 0 ||
        static_cast<std::uint64_t>(info.st_size) < AheadReader::WORTHWHILE_BYTES) {
        return nullptr;
    }
    try {
        return std::make_unique<AheadReader>(fd, maxBytes);
    } catch (const std::exception&) {
        return nullptr;
    }
}

template <typename Take> int TakePieces(AheadReader& reader, Take take) {
    for (;;) {
        const char* data = nullptr;
        std::size_t length = 0;
        if (const int error = reader.Next(data, length); error != 0 || length == 0) {
            return error;
        }
        if (const int error = take(data, length); error != 0) {
            return error;
        }
    }
}

int DigestContent(int fd, const std::string& algorithm, std::string& digest, std::uint64_t maxBytes) {
    MessageDigest computation;
    if (!computation.Start(algorithm)) {
        return EINVAL;
    }
    const auto take = [&](const char* data, std::size_t length) { return computation.Update(data, length) ? 0 : EIO; };
    const std::unique_ptr<AheadReader> reader = ReadAhead(fd, maxBytes);
    const int result = reader ? TakePieces(*reader, take) : ReadPieces(fd, maxBytes, take);
    if (result != 0) {
        return result;
    }
    digest = computation.Finish();
    return digest.empty() ? EIO : 0;
}

// How long it took goes to the histogram "digest", failures excepted.
int DigestContentTimed(int fd, const std::string& algorithm, std::string& digest, std::uint64_t maxBytes) {
    static Histogram& duration = Histograms::Of("digest");
    const std::uint64_t beginNs = TimeUtils::GetMonotonicNs();
    const int result = DigestContent(fd, algorithm, digest, maxBytes);
    if (result == 0) {
        duration.Record(TimeUtils::GetNsSince(beginNs));
    }
    return result;
}

// Calls `digestOpen(fd, digest)` with the regular file opened, or with the image that the thread holds under
// this path. `digest` is empty unless the result is 0.
template <typename DigestOpen> int DigestFile(const std::string& path, std::string& digest, DigestOpen digestOpen) {
    std::string computed;
    const int result = WithoutThrowing([&] {
        const ProcessImage* const image = ProcessImage::At(path);
        if (image != nullptr && image->GetFd() >= 0) {
            return lseek(image->GetFd(), 0, SEEK_SET) == 0 ? digestOpen(image->GetFd(), computed) : errno;
        }
        FileDescriptor file;
        const int opened = OpenRegular(image != nullptr ? image->GetLink() : path, O_RDONLY, file);
        return opened == 0 ? digestOpen(file.Get(), computed) : opened;
    });
    digest.swap(computed);
    if (result != 0) {
        digest.clear();
    }
    return result;
}

// ENOENT unless the digest is remembered of what lies at the path. That need not be the image which the thread holds
// under it.
int RecallDigest(const std::string& path, std::uint64_t maxBytes, std::string& digest) {
    const bool isHeld = ProcessImage::At(path) != nullptr;
    return !isHeld && DigestCache::Instance().Find(path, maxBytes, digest) ? 0 : ENOENT;
}

} // namespace

int FileUtils::ReadFile(const std::string& path, std::string& content, std::uint64_t maxBytes) {
    return WithoutThrowing([&] { return ReadContent(path, content, maxBytes); });
}

int FileUtils::WriteFile(const std::string& path, const char* data, std::size_t length, bool append) {
    return WithoutThrowing([&] { return append ? AppendToFile(path, data, length) : ReplaceFile(path, data, length); });
}

int FileUtils::WriteFile(const std::string& path, const std::string& text, bool append) {
    return WriteFile(path, text.data(), text.size(), append);
}

int FileUtils::RemoveFile(const std::string& path) {
    return unlink(path.c_str()) == 0 ? 0 : errno;
}

int FileUtils::KeepAs(const std::string& path, const std::string& name) {
    return WithoutThrowing([&] { return ReplaceName(path, name); });
}

bool FileUtils::IsFile(const std::string& path) {
    struct stat info {};
    return StatRegular(path, info) == 0;
}

int FileUtils::GetFileSize(const std::string& path, std::int64_t& size) {
    struct stat info {};
    const int result = StatRegular(path, info);
    if (result == 0) {
        size = info.st_size;
    }
    return result;
}

int FileUtils::GetFileSha256(const std::string& path, std::string& digest, std::uint64_t maxBytes) {
    std::string known;
    if (WithoutThrowing([&] { return RecallDigest(path, maxBytes, known); }) == 0) {
        digest.swap(known);
        return 0;
    }
    return DigestFile(path, digest, [&](int fd, std::string& computed) {
        return DigestCache::Instance().Get(
            fd, maxBytes,
            [&](int file, std::string& fresh) {
                return DigestContentTimed(file, MessageDigest::SHA256, fresh, maxBytes);
            },
            computed);
    });
}

int FileUtils::GetFileHash(const std::string& path, const std::string& algorithm, std::string& digest,
                           std::uint64_t maxBytes) {
    if (algorithm == MessageDigest::SHA256) {
        return GetFileSha256(path, digest, maxBytes);
    }
    return DigestFile(path, digest, [&](int fd, std::string& computed) {
        return DigestContentTimed(fd, algorithm, computed, maxBytes);
    });
}

DigestFigures FileUtils::GetDigestFigures() {
    return DigestCache::Instance().GetFigures();
}

} // namespace SDK
