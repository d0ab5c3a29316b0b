#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/Pause.h"
#include "system/Told.h"
#include "system/Usage.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr int PROCESSES = 4;
constexpr int FILES_EACH = 50000;

// An agent that watches more files than it can follow when they are all opened at once. Log records of
// single events are off: a storm of them would be a storm of its own.
class Storm : public testing::Test {
protected:
    Storm() {
        std::vector<std::string> folders;
        for (int i = 0; i < PROCESSES; ++i) {
            folders.push_back(mount / std::to_string(i));
        }
        MakeFiles(folders);
        agent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + agent.Scope().Name() +
                                                  R"("}, "log": {"level": "information"}})");
        PolicyOptions options;
        options.dirs = folders;
        // Not the files of the storm: each of them is looked up and remembered, none is judged.
        options.exts = {"audited"};
        Agent::Learned learned;
        learned.programs = {OPEN_FILES};
        agent.MakeDetecting(learned, options);
        agent.WaitForMarks(PROCESSES);
    }

    static void MakeFiles(const std::vector<std::string>& folders) {
        for (const std::string& folder : folders) {
            fs::create_directory(folder);
            for (int i = 0; i < FILES_EACH; ++i) {
                std::ofstream(folder + "/" + std::to_string(i)).flush();
            }
        }
    }

    // Has each process of the storm open all files of its folder; they stay when they are done.
    void Blow() {
        for (int i = 0; i < PROCESSES; ++i) {
            const std::string number = std::to_string(i);
            storm.push_back(std::make_unique<ScopedProcess>(
                agent.Scope().Path(), std::vector<std::string>{OPEN_FILES, mount / number, std::to_string(FILES_EACH),
                                                               agent.Work() / ("done-" + number)}));
        }
    }

    bool IsOver() const {
        for (int i = 0; i < PROCESSES; ++i) {
            if (!fs::exists(agent.Work() / ("done-" + std::to_string(i)))) {
                return false;
            }
        }
        return true;
    }

    std::int64_t Count(const std::string& counter) const {
        return agent.Status()["counters"]["files." + counter].asInt64();
    }

    // A reader is reported. While the kernel's queue is full of the storm it may well be lost, as any
    // other: then the next one is sent.
    void ExpectAReaderReported() {
        const std::string file = mount.Write("0/file.audited", "content");
        const std::string unknown = agent.MakeReader("unknown");
        constexpr std::chrono::seconds PATIENCE{1};
        EXPECT_TRUE(WaitFor([&] {
            readers.push_back(
                std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{unknown, "-f", file}));
            return WaitFor([&] { return !agent.AlertsOf(readers.back()->Pid()).empty(); }, PATIENCE);
        }));
    }

    // Nothing waits in the kernel, in the task's queue or between them any more: an access that is made
    // now is judged, and every access read before has gone one of the ways that there are.
    void ExpectEveryAccessAccountedFor() {
        ExpectAReaderReported();
        EXPECT_TRUE(WaitFor([&] { return Count("judged") == Count("posted"); }));
        EXPECT_EQ(Count("read"), Count("own") + Count("unscoped") + Count("posted") + Count("dropped"));
        EXPECT_EQ(Count("lost"), Count("dropped") + Count("overflow"));
    }

    TestSupport::TempMount mount;
    Agent agent;
    std::vector<std::unique_ptr<ScopedProcess>> storm;
    std::vector<std::unique_ptr<ScopedProcess>> readers;
};

TEST_F(Storm, EveryLossIsCountedMemoryIsBoundedAndNoDescriptorStaysOpen) {
    const int descriptors = CountDescriptors(agent);
    const long residentKib = ReadResidentKib(agent);
    Blow();
    ASSERT_TRUE(WaitFor([&] { return IsOver(); }));
    ExpectEveryAccessAccountedFor();
    constexpr int ALL = PROCESSES * FILES_EACH;
    // Each reader opened one file more; the test opened and wrote it.
    EXPECT_LE(Count("read"), ALL + 2 + static_cast<std::int64_t>(readers.size()));
    if (Count("overflow") == 0) {
        EXPECT_GE(Count("read"), ALL);
    }
    EXPECT_GT(Count("judged"), 0);
    EXPECT_TRUE(WaitFor([&] { return CountDescriptors(agent) == descriptors; }))
        << CountDescriptors(agent) << " for " << descriptors;
    // Some 100,000 inodes are remembered at a time, at a few hundred bytes each.
    constexpr long ALLOWED_KIB = 100 * 1024;
    EXPECT_LT(ReadResidentKib(agent), residentKib + ALLOWED_KIB);
    RecordProperty("read", std::to_string(Count("read")));
    RecordProperty("overflows", std::to_string(Count("overflow")));
    RecordProperty("dropped", std::to_string(Count("dropped")));
    RecordProperty("resident_growth_kib", std::to_string(ReadResidentKib(agent) - residentKib));
}

TEST_F(Storm, NobodyWaitsForAnAgentThatDoesNotAnswer) {
    Pause(agent.GetPid());
    Blow();
    const bool over = WaitFor([&] { return IsOver(); });
    ASSERT_EQ(kill(agent.GetPid(), SIGCONT), 0);
    EXPECT_TRUE(over);
    // More than the kernel keeps for a listener.
    EXPECT_TRUE(WaitFor([&] { return Count("overflow") > 0; }));
    ExpectEveryAccessAccountedFor();
    ExpectTold(agent, "files.overflow", "the kernel's queue ran over");
    ExpectTold(agent, "files.lost", "file accesses were lost");
}

} // namespace
} // namespace SystemTest
