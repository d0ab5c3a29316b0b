#include "agent/daemon/ProcessFigures.h"

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <limits>

#include <sys/resource.h>
#include <unistd.h>

#include "sdk/ProcStat.h"
#include "sdk/ProcessUtils.h"
#include "sdk/TimeUtils.h"

namespace Daemon {

namespace {

constexpr double NOT_KNOWN = std::numeric_limits<double>::quiet_NaN();

double ReadStartTime() {
    std::int64_t seconds = 0;
    return SDK::ProcessUtils::GetProcessStartTime(getpid(), seconds) == 0 ? static_cast<double>(seconds) : NOT_KNOWN;
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
    SDK::ProcStat stat;
    const bool known = SDK::ProcStat::Read(getpid(), stat) == 0;
    const auto pageBytes = static_cast<double>(sysconf(_SC_PAGESIZE));
    return {known ? static_cast<double>(stat.residentPages) * pageBytes : NOT_KNOWN,
            known ? static_cast<double>(stat.virtualBytes) : NOT_KNOWN,
            static_cast<double>(SDK::TimeUtils::GetCurrentSystemTickUsed()) / TICKS_PER_SECOND,
            CountOpenFds(),
            ReadMaxFds(),
            startTime};
}

} // namespace Daemon
