#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace SDK {

// What became of the requests for a file's SHA-256, since the start of the process.
struct DigestFigures {
    std::uint64_t hits = 0;    // known already
    std::uint64_t misses = 0;  // computed
    std::uint64_t refused = 0; // misses whose digest is not kept, because the file could change unnoticed
};

// Whole-file operations. Paths are bytes, sizes are bytes. Results of type int are 0 on success and
// an errno value otherwise; outputs are untouched on failure unless said otherwise. Nothing throws.
class FileUtils {
public:
    // The whole content of a regular file, read in one go. A file that holds more than `maxBytes`
    // is refused with EFBIG rather than cut short. What is not a regular file is refused with EINVAL
    // (EISDIR for a directory) and never waited for.
    static int ReadFile(const std::string& path, std::string& content, std::uint64_t maxBytes);

    // Without `append` the file is replaced in one step (temporary file in the same folder, fsync,
    // rename, fsync of the folder; mode 0600): after a crash at any point it is the old file or the
    // new one, whole. With `append` the bytes are added at the end; a missing file is created with
    // mode 0600.
    static int WriteFile(const std::string& path, const char* data, std::size_t length, bool append);
    static int WriteFile(const std::string& path, const std::string& text, bool append);

    // Deletes a file that is not a directory. ENOENT when there is none.
    static int RemoveFile(const std::string& path);

    // Gives the file a second name in the same file system, in place of whatever bears it now: a file that is
    // replaced afterwards under its first name stays under the second.
    static int KeepAs(const std::string& path, const std::string& name);

    // True when the path, links followed, leads to a regular file.
    static bool IsFile(const std::string& path);

    // The size of the regular file that the path leads to.
    static int GetFileSize(const std::string& path, std::int64_t& size);

    // The SHA-256 of at most the first `maxBytes` bytes of a regular file, as 64 lowercase
    // hexadecimal characters. The limit bounds the cost of a huge or sparse file; whoever compares
    // two digests must have used one limit for both. `digest` is cleared on failure.
    //
    // A file that has not changed since it was last asked for, as far as that can be known for certain, is
    // not read again. The path of an image that the thread holds (ProcessImage) stands for that image.
    static int GetFileSha256(const std::string& path, std::string& digest, std::uint64_t maxBytes);

    // The same with an algorithm named as OpenSSL names it ("SHA256"); EINVAL if there is none such.
    static int GetFileHash(const std::string& path, const std::string& algorithm, std::string& digest,
                           std::uint64_t maxBytes);

    static DigestFigures GetDigestFigures();
};

} // namespace SDK
