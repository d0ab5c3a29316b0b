#pragma once

// Clang's thread-safety attributes, empty on other compilers.
//
// They write down which lock guards which data so that `clang -Wthread-safety` checks it. The
// attribute names and their meaning: https://clang.llvm.org/docs/ThreadSafetyAnalysis.html

#if defined(__clang__)
#define SDK_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SDK_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) SDK_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY SDK_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) SDK_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) SDK_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) SDK_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define EXCLUDES(...) SDK_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) SDK_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) SDK_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) SDK_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) SDK_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) SDK_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS SDK_THREAD_ANNOTATION(no_thread_safety_analysis)
#define RETURN_CAPABILITY(x) SDK_THREAD_ANNOTATION(lock_returned(x))
