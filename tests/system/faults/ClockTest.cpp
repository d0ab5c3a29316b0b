#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

constexpr long HOUR = 3600;
constexpr long TOLERANCE = 60;

// What the daemon sends its signs of life to.
class Watchdog {
public:
    explicit Watchdog(const std::string& path) : mFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(mFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    ~Watchdog() { close(mFd); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // Some that are sent from now on.
    bool WaitForSigns() const {
        constexpr int ENOUGH = 3;
        while (Receive() != "") {
        }
        int signs = 0;
        return WaitFor([&] {
            signs += Receive().find("WATCHDOG=1") != std::string::npos ? 1 : 0;
            return signs >= ENOUGH;
        });
    }

private:
    // "" when there is nothing.
    std::string Receive() const {
        std::array<char, 4096> text{};
        const ssize_t length = recv(mFd, text.data(), text.size(), MSG_DONTWAIT);
        return length <= 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
    }

    const int mFd;
};

// An agent whose wall clock the test sets, in its process alone.
class Clock : public testing::Test {
protected:
    Clock() {
        SetAhead(0);
        agent.SetLauncher({"/usr/bin/env", "LD_PRELOAD=" SHIFTED_CLOCK, "CORVALENT_CLOCK_FILE=" + clockFile,
                           "NOTIFY_SOCKET=" + notifySocket, "WATCHDOG_USEC=200000"});
    }

    // The agent's clock is that many seconds ahead of the machine's; negative: behind.
    void SetAhead(long seconds) {
        ahead = seconds;
        const std::string fresh = agent.Work().Write("clock.new", std::to_string(seconds));
        ASSERT_EQ(rename(fresh.c_str(), clockFile.c_str()), 0);
    }

    // An unknown program is reported, with the time as the agent's clock has it.
    void ExpectReported() {
        const ScopedProcess unknown(agent.Scope().Path(),
                                    {agent.MakeProgram("unknown-" + std::to_string(++counter)), "600"});
        const Json::Value alert = agent.WaitForAlert(unknown.Pid());
        EXPECT_NEAR(static_cast<double>(alert["occur_time"].asInt64()), static_cast<double>(time(nullptr) + ahead),
                    TOLERANCE);
        pids.push_back(unknown.Pid());
    }

    // Every alert is in the history once, in the order in which they came.
    void ExpectHistoryInOrder() const {
        std::vector<int> found;
        for (const Json::Value& alert : agent.Alerts()) {
            const int pid = alert["process_info"]["process_pid"].asInt();
            if (std::find(pids.begin(), pids.end(), pid) != pids.end()) {
                found.push_back(pid);
            }
        }
        EXPECT_EQ(found, pids);
    }

    double ReadCpuSeconds() const {
        std::istringstream stat(TestSupport::TempDir::ReadText("/proc/" + std::to_string(agent.GetPid()) + "/stat"));
        // proc(5): the fields 14 and 15, utime and stime in ticks; the name of the daemon has no blank.
        constexpr int BEFORE_UTIME = 13;
        std::string skipped;
        for (int field = 0; field < BEFORE_UTIME; ++field) {
            stat >> skipped;
        }
        double user = 0;
        double system = 0;
        stat >> user >> system;
        return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
    }

    // Nothing spins: for a while the agent takes next to no CPU.
    void ExpectIdle() const {
        constexpr std::chrono::seconds WHILE{2};
        constexpr double MOST_CPU_SECONDS = 0.8;
        const double before = ReadCpuSeconds();
        const auto end = std::chrono::steady_clock::now() + WHILE;
        WaitFor([&] { return std::chrono::steady_clock::now() >= end; });
        EXPECT_LT(ReadCpuSeconds() - before, MOST_CPU_SECONDS);
    }

    Agent agent;
    const std::string clockFile = agent.Work() / "clock";
    const std::string notifySocket = agent.Work() / "notify";
    const Watchdog watchdog{notifySocket};
    long ahead = 0;
    int counter = 0;
    std::vector<int> pids;
};

TEST_F(Clock, SetBackAndForwardNoReportIsLostNothingHangsOrSpinsAndTheWatchdogIsFed) {
    agent.MakeDetecting();
    ExpectReported();
    for (const long seconds : {-2 * HOUR, 48 * HOUR, -24 * 365 * HOUR, 0L}) {
        SCOPED_TRACE(seconds);
        SetAhead(seconds);
        ExpectReported();
        EXPECT_TRUE(watchdog.WaitForSigns());
        ExpectIdle();
    }
    ExpectHistoryInOrder();
    EXPECT_EQ(agent.GetMode(), DETECTING);
    // But for what the kernel could not keep because the whole machine was too busy.
    const Json::Value counters = agent.Status()["counters"];
    EXPECT_EQ(counters["events.lost"], counters["events.overflow"]);
    SetAhead(-HOUR);
    EXPECT_LT(agent.Stop(), std::chrono::seconds(5));
    agent.StartWatching();
    agent.WaitForMode(DETECTING);
    ExpectReported();
    ExpectHistoryInOrder();
    agent.Stop();
}

// What was learned goes on being stored once a second, whatever the clock says.
TEST_F(Clock, SetBackAndForwardLearningGoesOnStoring) {
    agent.Start();
    agent.ApplyAndWatch({});
    for (const long seconds : {-2 * HOUR, 48 * HOUR, 0L}) {
        SCOPED_TRACE(seconds);
        SetAhead(seconds);
        const std::string path = agent.MakeProgram("learned-" + std::to_string(++counter));
        const ScopedProcess learned(agent.Scope().Path(), {path, "600"});
        EXPECT_TRUE(WaitFor([&] { return agent.Root().Read("conf/whitelist.data").find(path) != std::string::npos; }));
        EXPECT_TRUE(watchdog.WaitForSigns());
    }
    agent.Stop();
}

// The time learned is the wall clock's: a clock set back takes from it, one set forward adds to it, at the next look
// at the clock; "learn reset" looks at once.
TEST_F(Clock, TheTimeLearnedFollowsTheWallClock) {
    constexpr int LEARNED_MINUTES = 600;
    agent.WriteState(LEARNED_MINUTES, LEARNING);
    agent.Start();
    agent.ApplyAndWatch({});
    const auto minutes = [&] { return agent.Status()["learned_minutes"].asInt(); };
    ASSERT_TRUE(WaitFor([&] { return agent.Reports("whitelist_6").size() > 0; }));
    EXPECT_EQ(minutes(), LEARNED_MINUTES);
    SetAhead(-2 * HOUR);
    EXPECT_EQ(agent.Ctl({"learn", "reset"}).status, 0);
    EXPECT_NEAR(minutes(), LEARNED_MINUTES - 120, 1);
    SetAhead(HOUR);
    EXPECT_EQ(agent.Ctl({"learn", "reset"}).status, 0);
    EXPECT_NEAR(minutes(), LEARNED_MINUTES + 60, 1);
    EXPECT_THAT(agent.Root().Read("conf/modwhitelist.ini"), HasSubstr("LearnTime=" + std::to_string(minutes())));
    agent.Stop();
}

} // namespace
} // namespace SystemTest
