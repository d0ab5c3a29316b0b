#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>

#include <sys/stat.h>
#include <sys/statfs.h>

#include "sdk/FileUtils.h"

namespace SDK {

// Remembers the digests of files, so that a program which is started a thousand times is hashed once.
//
// A digest that is remembered stands for the file's content only as long as the content cannot have changed
// unnoticed. What the kernel gives to tell by, and what it does not:
//
//     ctime       is set by every write, truncation, rename, link and change of mode, owner or times, to the
//                 kernel's own clock; no call sets it to a value of the caller's choice (mtime can be set:
//                 "touch" restores it, and moves ctime doing so).
//     but         it counts in ticks: two changes within one may bear the same time. Ticks are some
//                 milliseconds on most file systems, up to two seconds on some.
//     but         write(2) sets it before it copies the data, and a page of a shared mapping sets it when it is
//                 first written to, not at later stores: who has the file open for writing, or mapped, can
//                 change the content afterwards without another ctime.
//     but         tmpfs, and so what memfd_create(2) gives, is not told of such a store at all: a page that was
//                 read through the mapping first is then changed without another ctime.
//     but         ext4, XFS and F2FS exchange the blocks of two files for whoever may write to both
//                 (EXT4_IOC_MOVE_EXT, XFS_IOC_EXCHANGE_RANGE, F2FS_IOC_MOVE_RANGE), and not all of them, in all
//                 versions, set it for both: Linux 6.18 does not for the second file of ext4's.
//     but         it follows the machine's clock, which can be set back.
//     but         a file system in user space or over a network tells whatever its server likes.
//     but         on a medium of his own, or in a file behind a loop device, a user writes what he likes, times
//                 and all, and desktops mount both for him.
//
// So a digest is remembered, under device, file system id, inode, size, mtime and ctime in nanoseconds and the
// read limit, only if all of this held:
//
//     1. the file system is one of the kernel's own, in which every change moves ctime (a list in the source),
//        and not mounted with nosuid, as everything is that is mounted on a user's behalf;
//     2. nobody but root may write to the file: it is root's, and neither its group nor others have the right
//        (a list of access rights shows in the group's);
//     3. before the content was read, ctime lay at least SETTLE_TIME in the past, by the clock that the
//        kernel takes it from, so that every change from then on gives another ctime;
//     4. after that, nobody had the file open for writing or mapped so: a read lease (fcntl(2), F_SETLEASE)
//        was granted. It is given back at once; nobody's open waits for the reading;
//     5. after the content was read, all of the key was as before.
//
// The digest of a file that fails one of these is right for the moment that it was read in, as ever, and is
// computed anew the next time. When a digest is computed and the clock has gone back, everything is forgotten.
//
// Not defended against: root, who mounts what a user brings without nosuid, writes to the block device below the
// file system, or has the kernel's rights.
//
// In memory only, MAX_ENTRIES at most; the least recently used goes. Several threads that ask for one file
// at a time share one computation. Thread-safe.
class DigestCache {
public:
    // Some 200 bytes each.
    static constexpr std::size_t MAX_ENTRIES = 16384;

    // More than the coarsest time stamp of a file system that the kernel has (2 s).
    static constexpr std::int64_t SETTLE_TIME_NS = 3'000'000'000;

    // The time that the kernel stamps files with, in nanoseconds since the epoch.
    using Clock = std::function<std::int64_t()>;

    // `maxEntries` is at least 1.
    explicit DigestCache(std::size_t maxEntries = MAX_ENTRIES, Clock clock = ReadFileClock);
    DigestCache(const DigestCache&) = delete;
    DigestCache& operator=(const DigestCache&) = delete;

    // The one that FileUtils::GetFileSha256 asks.
    static DigestCache& Instance();

    // CLOCK_REALTIME_COARSE.
    static std::int64_t ReadFileClock();

    // Computes the digest of what `fd` is open for, from its start; 0 or an errno value.
    using Compute = std::function<int(int fd, std::string& digest)>;

    // The digest of at most the first `maxBytes` bytes of the regular file that `fd` is open for reading, from
    // memory or by `compute`, whose result it returns. `digest` is untouched on failure.
    int Get(int fd, std::uint64_t maxBytes, const Compute& compute, std::string& digest);

    // The same of the file that `path` leads to, from memory only and without opening it. False when it is not
    // remembered.
    bool Find(const std::string& path, std::uint64_t maxBytes, std::string& digest);

    DigestFigures GetFigures() const;

private:
    struct Key {
        std::uint64_t device = 0;
        std::uint64_t fileSystem = 0; // f_fsid of fstatfs(2): device numbers are given again after an unmount
        std::uint64_t inode = 0;
        std::int64_t size = 0;
        std::int64_t mtimeNs = 0;
        std::int64_t ctimeNs = 0;
        std::uint64_t maxBytes = 0;

        // NOLINTNEXTLINE(modernize-use-nullptr): the tool takes the generated comparison with 0 for a pointer
        auto operator<=>(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const;
    };
    struct Entry {
        Key key;
        std::string digest;
    };
    using Entries = std::list<Entry>;

    static Key MakeKey(const struct stat& info, const struct statfs& system, std::uint64_t maxBytes);
    static bool Identify(int fd, std::uint64_t maxBytes, Key& key, bool& reliable);
    static bool HasNoWriters(int fd);
    bool IsSettled(const Key& key);

    enum class Lookup {
        Found,   // the digest is there
        Claimed, // the caller computes, and calls Conclude: others wait for that
        Alone,   // the caller has waited for a computation whose digest is not remembered: that one is good for
                 // the moment of its reading only, which may lie before the call. It computes for itself.
    };

    bool Recall(const Key& key, std::string& digest);
    Lookup FindOrClaim(const Key& key, std::string& digest);
    void CountRefused();
    void Conclude(const Key& key, const std::string* digest) noexcept;
    void Remember(const Key& key, const std::string& digest);
    int ComputeAndRemember(int fd, const Key& key, const Compute& compute, std::string& digest);

    const std::size_t mMaxEntries;
    const Clock mClock;

    // All below under mMutex. Most recently used first; mByKey has the place of every entry.
    mutable std::mutex mMutex;
    std::condition_variable mConcluded;
    Entries mEntries;
    std::unordered_map<Key, Entries::iterator, KeyHash> mByKey;
    std::set<Key> mUnderWay;        // being computed by some thread
    std::int64_t mLatestTimeNs = 0; // the latest that the clock has shown
    DigestFigures mFigures;
};

} // namespace SDK
