#include <chrono>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "system/Agent.h"

namespace SystemTest {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::chrono::seconds OBSERVED{30};
constexpr milliseconds ALLOWED{30};

// The module's event task wakes up so often to see whether it is to end.
constexpr milliseconds WAKE_UP_INTERVAL{30};

// Whatever starts on the machine, the kernel tells the agent, which then has to look whether that is in
// its scope. This much is allowed for each.
constexpr microseconds ALLOWED_PER_START{500};

// The CPU time of all threads, from /proc/PID/stat (proc(5)): utime and stime are the fields 14 and 15.
milliseconds ReadCpuTime(int pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    std::int64_t user = 0;
    std::int64_t system = 0;
    fields >> user >> system;
    return milliseconds((user + system) * 1000 / sysconf(_SC_CLK_TCK));
}

// How many processes and threads the machine has started since it booted.
std::int64_t CountStarts() {
    std::ifstream file("/proc/stat");
    std::string key;
    std::int64_t value = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream(line) >> key >> value;
        if (key == "processes") {
            return value;
        }
    }
    return 0;
}

// Sleeps for the time to be observed, waking up as often as the agent has to; returns what these bare
// wake-ups cost on this machine at this load.
microseconds WaitAndMeasureWakeUps() {
    const auto cpuTime = [] {
        timespec time{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    };
    const auto before = cpuTime();
    const auto end = std::chrono::steady_clock::now() + OBSERVED;
    while (std::chrono::steady_clock::now() < end) {
        poll(nullptr, 0, static_cast<int>(WAKE_UP_INTERVAL.count()));
    }
    return duration_cast<microseconds>(cpuTime() - before);
}

TEST(IdleTest, AnIdleAgentUsesNoMeasurableCpu) {
    Agent agent;
    agent.MakeDetecting();
    const std::int64_t startsBefore = CountStarts();
    const milliseconds cpuBefore = ReadCpuTime(agent.GetPid());
    const microseconds wakeUps = WaitAndMeasureWakeUps();
    const milliseconds used = ReadCpuTime(agent.GetPid()) - cpuBefore;
    const std::int64_t starts = CountStarts() - startsBefore;

    RecordProperty("used_ms", std::to_string(used.count()));
    RecordProperty("bare_wake_ups_us", std::to_string(wakeUps.count()));
    RecordProperty("starts_on_the_machine", std::to_string(starts));
    EXPECT_LE(used, ALLOWED + wakeUps + starts * ALLOWED_PER_START)
        << starts << " processes started on the machine meanwhile";
}

} // namespace
} // namespace SystemTest
