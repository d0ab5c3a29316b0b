#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

// The most that are looked at at start.
constexpr int MOST = 100000;

constexpr std::chrono::seconds LONG{90};

// The first number that stands in a file behind the word, or first of all.
std::int64_t ReadNumber(const std::string& file, const std::string& behind = "") {
    std::ifstream text(file);
    for (std::string word; !behind.empty() && text >> word && word != behind;) {
    }
    std::int64_t number = 0;
    text >> number;
    return number;
}

// Processes and threads of the whole machine: the number behind the slash in /proc/loadavg (proc(5)).
std::int64_t CountOnMachine() {
    std::ifstream text("/proc/loadavg");
    std::string ignored;
    std::getline(text, ignored, '/');
    std::int64_t number = 0;
    text >> number;
    return number;
}

// Why there cannot be so many processes here, with half as much room again for everybody else; empty when there
// can.
std::string WhyNotSoMany() {
    constexpr std::int64_t NEEDED_KIB = 5 * 1024 * 1024;
    if (const std::int64_t most = ReadNumber("/proc/sys/kernel/threads-max"); most < CountOnMachine() + MOST * 3 / 2) {
        return "the kernel allows " + std::to_string(most) + " threads";
    }
    const std::int64_t kib = ReadNumber("/proc/meminfo", "MemAvailable:");
    return kib < NEEDED_KIB ? "only " + std::to_string(kib) + " KiB of memory are available" : "";
}

// The kernel hands out no process ids above this one, so that there cannot be more processes at a time: raised for
// as long as this lives. Lowered again only once the many are gone, or else nobody on the machine can fork.
class RaisedPidMax {
public:
    RaisedPidMax() : mBefore(ReadNumber(FILE)) {
        if (mBefore < ENOUGH) {
            std::ofstream(FILE) << ENOUGH;
        }
    }
    ~RaisedPidMax() {
        if (WaitFor([] { return CountOnMachine() < FEW; }, LONG)) {
            std::ofstream(FILE) << mBefore;
        } else {
            ADD_FAILURE() << "kernel.pid_max stays raised: so many processes are still there";
        }
    }
    RaisedPidMax(const RaisedPidMax&) = delete;
    RaisedPidMax& operator=(const RaisedPidMax&) = delete;

    static bool IsEnough() { return ReadNumber(FILE) >= ENOUGH; }

private:
    static constexpr const char* FILE = "/proc/sys/kernel/pid_max";
    static constexpr std::int64_t ENOUGH = 4 * MOST;
    static constexpr std::int64_t FEW = 20000;
    const std::int64_t mBefore;
};

class ManyProcessesTest : public testing::Test {
protected:
    ~ManyProcessesTest() override {
        if (sleepers) {
            sleepers->Kill(SIGTERM);
            EXPECT_TRUE(sleepers->Wait(LONG));
        }
    }

    void SetUp() override {
        if (const std::string reason = WhyNotSoMany(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        if (!RaisedPidMax::IsEnough()) {
            GTEST_SKIP() << "kernel.pid_max cannot be raised here";
        }
    }

    // So many processes in the agent's scope: sleepers, and the one that made them.
    void Fill(int count) {
        sleepers = std::make_unique<ScopedProcess>(
            agent.Scope().Path(), std::vector<std::string>{FORK_SLEEPERS, std::to_string(count - 1), "light"});
        ASSERT_TRUE(WaitFor([&] { return CountInScope() == count || sleepers->HasEnded(); }, LONG));
        ASSERT_EQ(CountInScope(), count);
    }

    void EndOne() const {
        const std::vector<int> pids = agent.Scope().GetPids();
        ASSERT_EQ(pids.size(), static_cast<std::size_t>(MOST) + 1);
        const int sleeper = pids.back() == sleepers->Pid() ? pids.front() : pids.back();
        ASSERT_GT(sleeper, 1);
        ASSERT_EQ(kill(sleeper, SIGKILL), 0);
        ASSERT_TRUE(WaitFor([&] { return CountInScope() == MOST; }, LONG));
    }

    int CountInScope() const { return static_cast<int>(agent.Scope().GetPids().size()); }

    // An agent that learns what it meets at its start.
    void StartLearning() {
        agent.WriteState(0, LEARNING);
        agent.Start();
        ASSERT_EQ(agent.Apply(MakePolicy({})).status, 0);
    }

    bool HasLearned(const std::string& program) const {
        for (const Json::Value& entry : agent.Trust("local")) {
            if (entry["path"].asString() == program) {
                return true;
            }
        }
        return false;
    }

    // What starts beside so many is noticed as ever.
    void ExpectNewProgramLearned(const std::string& name) {
        const std::string program = agent.MakeProgram(name);
        const ScopedProcess process(agent.Scope().Path(), {program, "600"});
        EXPECT_TRUE(WaitFor([&] { return HasLearned(program); }, LONG));
    }

    static constexpr const char* COMPLAINT = "Module Cann't Start, due to process id size ";

    RaisedPidMax pidMax; // outlives the many
    Agent agent;
    std::unique_ptr<ScopedProcess> sleepers;
};

TEST_F(ManyProcessesTest, OneHundredThousandAreLookedAtAtStartAndOneMoreIsReported) {
    ASSERT_NO_FATAL_FAILURE(Fill(MOST + 1));
    StartLearning();
    ASSERT_TRUE(WaitFor([&] { return !agent.Reports("whitelist_5").empty(); }, LONG));
    EXPECT_EQ(agent.Reports("whitelist_5").front()["data"]["runerr"].asString(), "Too Many Running Proc");
    EXPECT_EQ(agent.CountInLog(COMPLAINT + std::to_string(MOST + 1)), 1);
    EXPECT_FALSE(HasLearned(FORK_SLEEPERS));
    ExpectNewProgramLearned("beside-too-many");
    agent.Stop();

    ASSERT_NO_FATAL_FAILURE(EndOne());
    StartLearning();
    EXPECT_TRUE(WaitFor([&] { return HasLearned(FORK_SLEEPERS); }, LONG));
    EXPECT_EQ(agent.Reports("whitelist_5").size(), 1U);
    EXPECT_EQ(agent.CountInLog(COMPLAINT), 1);
    ExpectNewProgramLearned("beside-many");
    agent.Stop();
}

} // namespace
} // namespace SystemTest
