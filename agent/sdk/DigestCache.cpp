#include "agent/sdk/DigestCache.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include "agent/sdk/StatTime.h"

namespace SDK {

namespace {

// File systems whose time stamps and leases are the kernel's own doing, and that are told of the first store to
// a page of a shared mapping (their vm_operations_struct has a page_mkwrite) unless they are never written to.
// From <linux/magic.h> but for XFS, which is in its own header (fs/xfs/libxfs/xfs_format.h, XFS_SB_MAGIC). The
// three generations of ext share a number.
constexpr std::uint32_t XFS_MAGIC = 0x58465342;
constexpr std::array<std::uint32_t, 6> KERNEL_FILE_SYSTEMS = {
    EXT4_SUPER_MAGIC, XFS_MAGIC, BTRFS_SUPER_MAGIC, F2FS_SUPER_MAGIC, SQUASHFS_MAGIC, EROFS_SUPER_MAGIC_V1,
};

bool IsKernelFileSystem(const struct statfs& info) {
    const auto type = static_cast<std::uint32_t>(info.f_type);
    return std::find(KERNEL_FILE_SYSTEMS.begin(), KERNEL_FILE_SYSTEMS.end(), type) != KERNEL_FILE_SYSTEMS.end();
}

// Whoever may plug in a medium, or set up a loop device on a file of theirs, has it mounted for them, always with
// nosuid (udisks; mount(8), "user"), and can change its blocks behind the file system's back.
bool IsRootsOwnMount(const struct statfs& info) {
    return (info.f_flags & ST_NOSUID) == 0;
}

bool IsBelievable(const struct statfs& info) {
    return IsKernelFileSystem(info) && IsRootsOwnMount(info);
}

bool CanOnlyRootWrite(const struct stat& info) {
    return info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

} // namespace

DigestCache::DigestCache(std::size_t maxEntries, Clock clock) : mMaxEntries(maxEntries), mClock(std::move(clock)) {}

DigestCache& DigestCache::Instance() {
    // Never destroyed: threads may still hash while the process exits.
    static DigestCache* const cache = new DigestCache;
    return *cache;
}

std::int64_t DigestCache::ReadFileClock() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return ToNs(now);
}

std::size_t DigestCache::KeyHash::operator()(const Key& key) const {
    // Inode and ctime alone tell files apart; 2^64 divided by the golden ratio spreads them over all bits.
    constexpr std::uint64_t SPREAD = 0x9E3779B97F4A7C15U;
    return static_cast<std::size_t>((key.inode * SPREAD) ^ static_cast<std::uint64_t>(key.ctimeNs) ^
                                    (key.device << 32U) ^ key.maxBytes);
}

DigestCache::Key DigestCache::MakeKey(const struct stat& info, const struct statfs& system, std::uint64_t maxBytes) {
    Key key;
    static_assert(sizeof(system.f_fsid) == sizeof(key.fileSystem));
    std::memcpy(&key.fileSystem, &system.f_fsid, sizeof(key.fileSystem));
    key.device = info.st_dev;
    key.inode = info.st_ino;
    key.size = info.st_size;
    key.mtimeNs = ToNs(info.st_mtim);
    key.ctimeNs = ToNs(info.st_ctim);
    key.maxBytes = maxBytes;
    return key;
}

// What the file is known by; `reliable` says whether that can be believed. False when the file
// cannot be asked.
bool DigestCache::Identify(int fd, std::uint64_t maxBytes, Key& key, bool& reliable) {
    struct stat info {};
    struct statfs system {};
    if (fstat(fd, &info) != 0 || fstatfs(fd, &system) != 0) {
        return false;
    }
    key = MakeKey(info, system, maxBytes);
    reliable = IsBelievable(system) && CanOnlyRootWrite(info);
    return true;
}

// The kernel grants a read lease only on a file that nobody has open for writing or mapped so. Whoever opens it
// for writing in the moment before it is given back waits for that moment, and the kernel sends the holder
// a signal: one that is ignored unless somebody asked for it, in place of SIGIO, which ends a process.
bool DigestCache::HasNoWriters(int fd) {
    if (fcntl(fd, F_SETSIG, SIGURG) != 0 || fcntl(fd, F_SETLEASE, F_RDLCK) != 0) {
        return false;
    }
    return fcntl(fd, F_SETLEASE, F_UNLCK) == 0;
}

// Forgets everything when the clock has gone back: ctimes may come again then.
bool DigestCache::IsSettled(const Key& key) {
    const std::lock_guard guard(mMutex);
    const std::int64_t now = mClock();
    if (now < mLatestTimeNs) {
        mByKey.clear();
        mEntries.clear();
    }
    mLatestTimeNs = now;
    return key.ctimeNs <= now - SETTLE_TIME_NS;
}

// With mMutex held: true, and counted as a hit, when the digest is remembered.
bool DigestCache::Recall(const Key& key, std::string& digest) {
    const auto found = mByKey.find(key);
    if (found == mByKey.end()) {
        return false;
    }
    mEntries.splice(mEntries.begin(), mEntries, found->second);
    digest = found->second->digest;
    ++mFigures.hits;
    return true;
}

// Only digests of regular files are remembered, so that nothing else is found.
bool DigestCache::Find(const std::string& path, std::uint64_t maxBytes, std::string& digest) {
    struct stat info {};
    struct statfs system {};
    if (stat(path.c_str(), &info) != 0 || statfs(path.c_str(), &system) != 0 || !IsBelievable(system)) {
        return false;
    }
    const Key key = MakeKey(info, system, maxBytes);
    const std::lock_guard guard(mMutex);
    return Recall(key, digest);
}

DigestCache::Lookup DigestCache::FindOrClaim(const Key& key, std::string& digest) {
    std::unique_lock lock(mMutex);
    const bool waits = mUnderWay.count(key) != 0;
    mConcluded.wait(lock, [&] { return mUnderWay.count(key) == 0; });
    if (Recall(key, digest)) {
        return Lookup::Found;
    }
    ++mFigures.misses;
    if (waits) {
        return Lookup::Alone;
    }
    mUnderWay.insert(key);
    return Lookup::Claimed;
}

void DigestCache::Remember(const Key& key, const std::string& digest) {
    if (mByKey.count(key) != 0) {
        return;
    }
    if (mEntries.size() >= mMaxEntries) {
        mByKey.erase(mEntries.back().key);
        mEntries.pop_back();
    }
    mEntries.push_front({key, digest});
    try {
        mByKey.emplace(key, mEntries.begin());
    } catch (...) {
        mEntries.pop_front();
        throw;
    }
}

// Ends the computation that others may wait for; null when it came to nothing that may be remembered.
void DigestCache::Conclude(const Key& key, const std::string* digest) noexcept {
    const std::lock_guard guard(mMutex);
    mUnderWay.erase(key);
    mConcluded.notify_all();
    try {
        if (digest != nullptr) {
            Remember(key, *digest);
            return;
        }
    } catch (const std::bad_alloc&) { // short of memory, it is computed anew the next time
    }
    ++mFigures.refused;
}

int DigestCache::ComputeAndRemember(int fd, const Key& key, const Compute& compute, std::string& digest) {
    // Whatever happens, nobody is left waiting.
    struct Conclusion {
        ~Conclusion() { cache.Conclude(key, digest); }
        DigestCache& cache;
        const Key& key;
        const std::string* digest;
    } conclusion{*this, key, nullptr};

    const bool lasting = IsSettled(key) && HasNoWriters(fd);
    std::string computed;
    const int result = compute(fd, computed);
    if (result != 0) {
        return result;
    }
    digest = computed;
    Key after;
    bool reliable = false;
    if (lasting && Identify(fd, key.maxBytes, after, reliable) && after == key) {
        conclusion.digest = &digest;
    }
    return 0;
}

int DigestCache::Get(int fd, std::uint64_t maxBytes, const Compute& compute, std::string& digest) {
    Key key;
    bool reliable = false;
    if (!Identify(fd, maxBytes, key, reliable) || !reliable) {
        CountRefused();
        return compute(fd, digest);
    }
    switch (FindOrClaim(key, digest)) {
    case Lookup::Found:
        return 0;
    case Lookup::Alone:
        return compute(fd, digest);
    case Lookup::Claimed:
        break;
    }
    return ComputeAndRemember(fd, key, compute, digest);
}

void DigestCache::CountRefused() {
    const std::lock_guard guard(mMutex);
    ++mFigures.misses;
    ++mFigures.refused;
}

DigestFigures DigestCache::GetFigures() const {
    const std::lock_guard guard(mMutex);
    return mFigures;
}

} // namespace SDK
