#pragma once

#include <pthread.h>

#include "sdk/ThreadAnnotations.h"

namespace SDK {

// A reader-writer lock over pthread_rwlock_t that the compiler can check.
//
// Not recursive: a thread that holds it in either form must not take it again. Lock and unlock
// return pthread's result (0 on success), which only misuse makes non-zero.
class CAPABILITY("rwlock") RwLock {
public:
    RwLock() = default;
    ~RwLock() { pthread_rwlock_destroy(&mLock); }
    RwLock(const RwLock&) = delete;
    RwLock& operator=(const RwLock&) = delete;

    int LockWrite() ACQUIRE() { return pthread_rwlock_wrlock(&mLock); }
    int UnlockWrite() RELEASE() { return pthread_rwlock_unlock(&mLock); }
    int LockRead() ACQUIRE_SHARED() { return pthread_rwlock_rdlock(&mLock); }
    int UnlockRead() RELEASE_SHARED() { return pthread_rwlock_unlock(&mLock); }

private:
    pthread_rwlock_t mLock = PTHREAD_RWLOCK_INITIALIZER;
};

// Holds the lock for writing from construction to the end of the scope.
class SCOPED_CAPABILITY WriteGuard {
public:
    explicit WriteGuard(RwLock& lock) ACQUIRE(lock) : mLock(lock) { mLock.LockWrite(); }
    ~WriteGuard() RELEASE() { mLock.UnlockWrite(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

private:
    RwLock& mLock;
};

// Holds the lock for reading from construction to the end of the scope.
class SCOPED_CAPABILITY ReadGuard {
public:
    explicit ReadGuard(RwLock& lock) ACQUIRE_SHARED(lock) : mLock(lock) { mLock.LockRead(); }
    ~ReadGuard() RELEASE_GENERIC() { mLock.UnlockRead(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

private:
    RwLock& mLock;
};

} // namespace SDK
