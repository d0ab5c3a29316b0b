#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/Told.h"
#include "system/Usage.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;

namespace fs = std::filesystem;

// How long it lasts: a minute, or CORVALENT_SOAK_SECONDS.
int SoakSeconds() {
    constexpr int DEFAULT_SECONDS = 60;
    const char* wanted = std::getenv("CORVALENT_SOAK_SECONDS");
    const int seconds = wanted == nullptr ? DEFAULT_SECONDS : std::atoi(wanted);
    return std::max(seconds, 4);
}

// What an untrusted program is reported by.
using Verdicts = std::set<std::pair<std::string, std::string>>; // path, digest

// What the agent takes at one moment.
struct Usage {
    long residentKib = 0;
    long threads = 0;
    int descriptors = 0;
};

Usage ReadUsage(const Agent& agent) {
    return {ReadResidentKib(agent), ReadProcessStatus(agent, "Threads"), CountDescriptors(agent)};
}

// The most of each in a stretch of the soak.
Usage MostOf(const std::vector<Usage>& all, std::size_t from, std::size_t to) {
    Usage most;
    for (std::size_t i = from; i < to; ++i) {
        most.residentKib = std::max(most.residentKib, all[i].residentKib);
        most.threads = std::max(most.threads, all[i].threads);
        most.descriptors = std::max(most.descriptors, all[i].descriptors);
    }
    return most;
}

// What the storm says of itself.
struct Tally {
    std::int64_t started = 0;
    std::int64_t failed = 0;
};

Tally ReadTally(const std::string& file) {
    std::ifstream text(file);
    Tally tally;
    text >> tally.started >> tally.failed;
    EXPECT_TRUE(text) << file;
    return tally;
}

// Programs of all sorts, which agents with scopes of their own run. Each lives long enough to be looked at.
class SoakTest : public testing::Test {
protected:
    SoakTest() {
        const std::string shell = Copy("/bin/dash", "trusted-shell");
        const std::string otherShell = Copy("/bin/dash", "unknown-shell");
        for (int i = 0; i < TRUSTED; ++i) {
            AddProgram("trusted-" + std::to_string(i), true);
        }
        for (int i = 0; i < UNKNOWN; ++i) {
            AddProgram("unknown-" + std::to_string(i), false);
        }
        trusted.push_back(shell);
        trusted.emplace_back(STORM);
        AddScript("script", shell);
        AddScript("other-script", otherShell);
    }

    std::string Copy(const char* original, const std::string& name) {
        std::string path = folder.Write(name, TestSupport::TempDir::ReadText(original) + name);
        fs::permissions(path, fs::perms::owner_all);
        return path;
    }

    void AddProgram(const std::string& name, bool isTrusted) {
        const std::string path = Copy("/usr/bin/sleep", name);
        commands.push_back({path, LIFETIME});
        if (isTrusted) {
            trusted.push_back(path);
        }
    }

    void AddScript(const std::string& name, const std::string& shell) {
        const std::string path =
            folder.Write(name, "#!" + shell + "\n" + commands.front().front() + " " + LIFETIME + "\n");
        fs::permissions(path, fs::perms::owner_all);
        commands.push_back({path});
    }

    void MakeDetecting(Agent& agent) const {
        agent.Root().Write("conf/agent.json",
                           R"({"scope": {"cgroup": ")" + agent.Scope().Name() + R"("}, "log": {"level": "warning"}})");
        agent.MakeDetecting({.programs = trusted}, {});
    }

    // Who was reported; what the harness itself started is not counted.
    Verdicts ReadVerdicts(Agent& agent) const {
        Verdicts verdicts;
        for (const Json::Value& program : ParseLines(agent.Ctl({"alerts", "--summary", "--json"}).out)) {
            if (program["path"].asString().starts_with(folder.Path())) {
                verdicts.emplace(program["path"].asString(), program["hash"].asString());
            }
        }
        return verdicts;
    }

    // One after the other, each judged before the next begins.
    Verdicts RunSlowly() {
        Agent agent;
        MakeDetecting(agent);
        for (const std::vector<std::string>& command : commands) {
            ScopedProcess process(agent.Scope().Path(), command);
            EXPECT_TRUE(process.Wait(DEADLINE));
            agent.DrainEvents();
        }
        return ReadVerdicts(agent);
    }

    // A storm of programs, as many as the machine gives.
    std::unique_ptr<ScopedProcess> BlowPrograms(const Agent& agent, int seconds) const {
        constexpr const char* AT_ONCE = "256";
        std::vector<std::string> words = {STORM, folder / "programs", std::to_string(seconds) + "s", AT_ONCE};
        // More of what runs every day than of what is reported.
        for (int i = 0; i < COMMON; ++i) {
            AppendCommands(words, 0, TRUSTED);
        }
        AppendCommands(words, TRUSTED, commands.size());
        return std::make_unique<ScopedProcess>(agent.Scope().Path(), words);
    }

    // The same of forks that end at once.
    std::unique_ptr<ScopedProcess> BlowForks(const Agent& agent, int seconds) const {
        return std::make_unique<ScopedProcess>(
            agent.Scope().Path(),
            std::vector<std::string>{STORM, folder / "forks", std::to_string(seconds) + "s", "4"});
    }

    // How often a program was executed by so many starts: a script starts a program of its own.
    static std::int64_t CountExecutions(std::int64_t starts) {
        constexpr std::int64_t PROGRAMS = COMMON * TRUSTED + UNKNOWN;
        constexpr std::int64_t ROUND = PROGRAMS + SCRIPTS;
        return starts + starts / ROUND * SCRIPTS + std::max<std::int64_t>(starts % ROUND - PROGRAMS, 0);
    }

    void AppendCommands(std::vector<std::string>& words, std::size_t from, std::size_t to) const {
        for (std::size_t i = from; i < to; ++i) {
            words.insert(words.end(), commands[i].begin(), commands[i].end());
            words.emplace_back("--");
        }
    }

    static constexpr int TRUSTED = 6;
    static constexpr int UNKNOWN = 4;
    static constexpr int SCRIPTS = 2;
    static constexpr int COMMON = 8; // of each trusted program in a round
    static constexpr const char* LIFETIME = "0.1";

    TestSupport::TempDir folder;
    std::vector<std::string> trusted;
    std::vector<std::vector<std::string>> commands;
};

// What an agent has counted between two moments.
class Counted {
public:
    explicit Counted(const Agent& agent) : mAgent(agent), mBefore(agent.Status()["counters"]) {}
    std::int64_t operator[](const char* counter) const {
        return CounterOf(mAgent, counter) - mBefore[counter].asInt64();
    }

private:
    const Agent& mAgent;
    const Json::Value mBefore;
};

void ExpectLevel(const std::vector<Usage>& usage) {
    ASSERT_GE(usage.size(), 3U);
    const Usage warm = MostOf(usage, usage.size() / 4, usage.size() / 2);
    const Usage late = MostOf(usage, usage.size() * 3 / 4, usage.size());
    // What the allocator keeps varies a little, and the kernel's own pages of the history's file come and go.
    constexpr long ALLOWED_KIB = 8 * 1024;
    EXPECT_LE(late.residentKib, warm.residentKib + ALLOWED_KIB);
    EXPECT_LE(late.threads, warm.threads);
    // A file of /proc may be open at the moment of looking.
    constexpr int IN_USE = 8;
    EXPECT_LE(late.descriptors, warm.descriptors + IN_USE);
    std::cout << "resident KiB " << warm.residentKib << " -> " << late.residentKib << ", threads " << warm.threads
              << " -> " << late.threads << ", descriptors " << warm.descriptors << " -> " << late.descriptors << '\n';
}

// Each execution and fork is judged, or counted as lost.
void ExpectAccountedFor(const Counted& counted) {
    const std::int64_t begun = counted["events.exec"] + counted["events.fork"] - counted["events.folded"];
    const std::int64_t judged = counted["events.judged"] + counted["events.starved"];
    const std::int64_t lost = counted["events.lost"];
    EXPECT_GE(judged + lost, begun);
    EXPECT_LE(judged, begun + counted["events.rescued"]);
    std::cout << "judged " << judged << " of " << begun << ", lost " << lost << ", overflows "
              << counted["events.overflow"] << '\n';
}

void ExpectEnded(ScopedProcess& storm) {
    ASSERT_TRUE(storm.Wait(DEADLINE));
    ASSERT_TRUE(storm.ExitedWith(0));
}

TEST_F(SoakTest, AtTheHighestRateEverythingIsAccountedForAndTheVerdictsAreThoseOfASlowRun) {
    const Verdicts slow = RunSlowly();
    ASSERT_EQ(slow.size(), static_cast<std::size_t>(UNKNOWN) + 1); // and a shell that runs a script
    Agent agent;
    MakeDetecting(agent);
    const int descriptors = CountDescriptors(agent);

    // Programs, for most of the time.
    const int seconds = SoakSeconds();
    const Counted counted(agent);
    std::vector<Usage> usage;
    auto programs = BlowPrograms(agent, seconds * 3 / 4);
    while (!programs->Wait(std::chrono::seconds(1))) {
        usage.push_back(ReadUsage(agent));
    }
    ASSERT_NO_FATAL_FAILURE(ExpectEnded(*programs));
    agent.DrainEvents();
    const Tally tally = ReadTally(folder / "programs");
    EXPECT_EQ(tally.failed, 0);
    std::cout << tally.started << " programs in " << seconds * 3 / 4 << " s\n";
    ASSERT_NO_FATAL_FAILURE(ExpectLevel(usage));
    ExpectAccountedFor(counted);
    // With the storm's own and the last program of the harness. What the kernel dropped nobody has seen.
    const std::int64_t executions = CountExecutions(tally.started) + 2;
    EXPECT_LE(counted["events.exec"], executions);
    if (counted["events.overflow"] == 0) {
        EXPECT_EQ(counted["events.exec"], executions) << agent.Status()["counters"].toStyledString();
    }

    // Forks beside them, which are more than a program can follow.
    const Counted countedThen(agent);
    programs = BlowPrograms(agent, seconds / 4);
    const auto forks = BlowForks(agent, seconds / 4);
    ASSERT_TRUE(programs->Wait(std::chrono::seconds(seconds) + DEADLINE));
    ASSERT_NO_FATAL_FAILURE(ExpectEnded(*programs));
    ASSERT_NO_FATAL_FAILURE(ExpectEnded(*forks));
    agent.DrainEvents();
    std::cout << ReadTally(folder / "programs").started << " programs and " << ReadTally(folder / "forks").started
              << " forks in " << seconds / 4 << " s\n";
    ExpectAccountedFor(countedThen);
    if (countedThen["events.overflow"] > 0) {
        ExpectTold(agent, "events.overflow", "the kernel dropped process events");
    }

    EXPECT_EQ(ReadVerdicts(agent), slow);
    EXPECT_LE(ReadProcessStatus(agent, "Threads"), MostOf(usage, 0, usage.size()).threads);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return CountDescriptors(agent) == descriptors; }))
        << CountDescriptors(agent) << " for " << descriptors;
    for (const char* fault : {"task.exceptions", "module.exceptions", "resources.short", "reports.given_up"}) {
        EXPECT_EQ(counted[fault], 0) << fault;
    }
    agent.Stop();
}

} // namespace
} // namespace SystemTest
