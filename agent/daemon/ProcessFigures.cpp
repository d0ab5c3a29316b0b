#include "agent/daemon/ProcessFigures.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include <sys/resource.h>
#include <unistd.h>

#include "sdk/ProcStat.h"
#include "sdk/TimeUtils.h"

namespace Daemon {

namespace {

constexpr double NOT_KNOWN = std::numeric_limits<double>::quiet_NaN();

double ReadClock(clockid_t clock) {
    constexpr double NS_PER_SECOND = 1e9;
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / NS_PER_SECOND;
}

// The kernel counts from the boot (proc(5), field 22 of stat).
double ReadStartTime() {
    SDK::ProcStat stat;
    if (SDK::ProcStat::Read(getpid(), stat) != 0) {
        return NOT_KNOWN;
    }
    const double sinceBoot = static_cast<double>(stat.startTime) / static_cast<double>(sysconf(_SC_CLK_TCK));
    return ReadClock(CLOCK_REALTIME) - ReadClock(CLOCK_BOOTTIME) + sinceBoot;
}

double CountOpenFds() {
    std::error_code error;
    const std::filesystem::directory_iterator open("/proc/self/fd", error);
    if (error) {
        return NOT_KNOWN;
    }
    // One of them is the folder's own.
    return static_cast<double>(std::distance(begin(open), end(open)) - 1);
}

double ReadMaxFds() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return NOT_KNOWN;
    }
    return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<double>::infinity()
                                           : static_cast<double>(limit.rlim_cur);
}

} // namespace

ProcessFigures ProcessFigures::Read() {
    constexpr double TICKS_PER_SECOND = 1e6;
    // Once, so that a clock that is set does not move it.
    static const double startTime = ReadStartTime();
    // proc(5), statm: all pages, then the resident ones.
    std::ifstream statm("/proc/self/statm");
    double virtualPages = NOT_KNOWN;
    double residentPages = NOT_KNOWN;
    if (!(statm >> virtualPages >> residentPages)) {
        virtualPages = residentPages = NOT_KNOWN;
    }
    const auto pageBytes = static_cast<double>(sysconf(_SC_PAGESIZE));
    return {residentPages * pageBytes,
            virtualPages * pageBytes,
            static_cast<double>(SDK::TimeUtils::GetCurrentSystemTickUsed()) / TICKS_PER_SECOND,
            CountOpenFds(),
            ReadMaxFds(),
            startTime};
}

} // namespace Daemon
