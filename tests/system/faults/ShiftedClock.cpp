// A library to preload: the wall clock as the process sees it is the machine's plus the seconds in the file that
// CORVALENT_CLOCK_FILE names (a whole number; none when it cannot be read). The machine's clock is not touched, and
// clocks that measure durations are what they are.
//
// Waits up to a time on the wall clock are shifted back, so that they last as long as after a step of a real
// clock; one that has begun already is looked at again every few milliseconds.

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr long NS_PER_SECOND = 1000000000L;
constexpr long NS_PER_US = 1000L;
constexpr long SLICE_NS = 20000000L;

long ReadShift() {
    const char* path = std::getenv("CORVALENT_CLOCK_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char text[32] = {};
    const ssize_t length = read(fd, text, sizeof(text) - 1);
    close(fd);
    return length > 0 ? std::strtol(text, nullptr, 10) : 0;
}

bool IsWallClock(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool IsBefore(const timespec& left, const timespec& right) {
    return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && IsWallClock(clock)) {
        now->tv_sec += ReadShift();
    }
    return static_cast<int>(result);
}

__attribute__((visibility("default"))) int gettimeofday(timeval* now, void* /*zone*/) noexcept {
    timespec precise{};
    const int result = clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / NS_PER_US;
    return result;
}

__attribute__((visibility("default"))) time_t time(time_t* now) noexcept {
    timespec precise{};
    clock_gettime(CLOCK_REALTIME, &precise);
    if (now != nullptr) {
        *now = precise.tv_sec;
    }
    return precise.tv_sec;
}

__attribute__((visibility("default"))) int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                                                  clockid_t clock, const timespec* until) {
    using Wait = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*);
    static const auto original = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    for (;;) {
        timespec now{};
        clock_gettime(clock, &now);
        if (!IsWallClock(clock)) {
            return original(condition, mutex, clock, until);
        }
        if (!IsBefore(now, *until)) {
            return ETIMEDOUT;
        }
        timespec slice{};
        syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &slice);
        slice.tv_nsec += SLICE_NS;
        if (slice.tv_nsec >= NS_PER_SECOND) {
            slice.tv_nsec -= NS_PER_SECOND;
            ++slice.tv_sec;
        }
        const int result = original(condition, mutex, CLOCK_MONOTONIC, &slice);
        if (result != ETIMEDOUT) {
            return result;
        }
    }
}

} // extern "C"
