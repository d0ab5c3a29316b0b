#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <memory>

#include <gtest/gtest.h>
#include <unistd.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using TestSupport::ScopedProcess;
using TestSupport::WaitFor;
namespace fs = std::filesystem;

constexpr int MATCHED_BY_HASH = 1;
constexpr int MATCHED_BY_PATH = 2;

// Programs of the machine that wait for their standard input, all from one pipe, inside a scope.
class Readers {
public:
    explicit Readers(const Agent& agent) : mAgent(agent) {
        if (pipe2(mPipe.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~Readers() {
        mProcesses.clear();
        close(mPipe[0]);
        close(mPipe[1]);
    }
    Readers(const Readers&) = delete;
    Readers& operator=(const Readers&) = delete;

    void Start(const std::vector<std::string>& words) {
        mProcesses.push_back(std::make_unique<ScopedProcess>(mAgent.Scope().Path(), words, mPipe[0]));
    }

    // Starts the machine's own readers; their images.
    std::vector<std::string> StartAll() {
        const std::vector<std::vector<std::string>> commands = {
            {"/usr/bin/cat"},       {"/usr/bin/tac"},  {"/usr/bin/sort"},         {"/usr/bin/wc"},
            {"/usr/bin/head"},      {"/usr/bin/tail"}, {"/usr/bin/nl"},           {"/usr/bin/od"},
            {"/usr/bin/sha256sum"}, {"/usr/bin/tee"},  {"/usr/bin/sed", "p"},     {"/usr/bin/grep", "x"},
            {"/usr/bin/base64"},    {"/usr/bin/gzip"}, {"/usr/bin/tr", "a", "b"}, {"/usr/bin/uniq"},
        };
        std::vector<std::string> images;
        for (const auto& command : commands) {
            Start(command);
            images.push_back(fs::canonical(command.front()).string());
        }
        return images;
    }

private:
    const Agent& mAgent;
    std::array<int, 2> mPipe{};
    std::vector<std::unique_ptr<ScopedProcess>> mProcesses;
};

std::map<std::string, Json::Value> ByPath(const Json::Value& entries) {
    std::map<std::string, Json::Value> byPath;
    for (const Json::Value& entry : entries) {
        byPath[entry["path"].asString()] = entry;
    }
    return byPath;
}

// What the agent has kept; the file is empty until there is something.
std::map<std::string, Json::Value> KeptEntries(const Agent& agent) {
    const std::string text = agent.Root().Read("conf/whitelist.data");
    Json::Value document;
    EXPECT_TRUE(text.empty() || SDK::JsonUtils::ParseJsonStr(text, document) == 0) << text;
    return ByPath(document["process_info"]);
}

// Every entry of every report of the type, by path.
std::map<std::string, Json::Value> ReportedEntries(const Agent& agent, const std::string& type) {
    std::map<std::string, Json::Value> reported;
    for (const Json::Value& report : agent.Reports(type)) {
        reported.merge(ByPath(report["data"]["process_info"]));
    }
    return reported;
}

bool HasAll(const std::map<std::string, Json::Value>& entries, const std::vector<std::string>& paths) {
    return std::all_of(paths.begin(), paths.end(), [&](const std::string& path) { return entries.count(path) == 1; });
}

void ExpectEntriesTellTheFiles(const std::map<std::string, Json::Value>& entries,
                               const std::vector<std::string>& images) {
    for (const std::string& image : images) {
        ASSERT_EQ(entries.count(image), 1U) << image;
        const Json::Value& entry = entries.at(image);
        EXPECT_EQ(entry["name"].asString(), fs::path(image).filename().string());
        EXPECT_EQ(entry["hash"].asString(), Sha256Of(image)) << image;
        EXPECT_EQ(entry["size"].asUInt64(), fs::file_size(image)) << image;
    }
}

TEST(LearningTest, WhatRunsIsLearnedReportedAndKept) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});
    Readers readers(agent);
    const std::vector<std::string> images = readers.StartAll();

    EXPECT_TRUE(WaitFor([&] { return HasAll(ByPath(agent.Trust("local")), images); }));
    ExpectEntriesTellTheFiles(ByPath(agent.Trust("local")), images);
    EXPECT_TRUE(WaitFor([&] { return HasAll(ReportedEntries(agent, "whitelist_3"), images); }));
    ExpectEntriesTellTheFiles(ReportedEntries(agent, "whitelist_3"), images);
    EXPECT_TRUE(WaitFor([&] { return HasAll(KeptEntries(agent), images); }));
    ExpectEntriesTellTheFiles(KeptEntries(agent), images);

    const Json::Value status = agent.Status();
    EXPECT_EQ(status["mode"].asInt(), LEARNING);
    EXPECT_EQ(status["mode_name"].asString(), "learning");
    EXPECT_EQ(status["learned_minutes"].asInt(), 0);
    EXPECT_EQ(status["learn_period_minutes"].asInt(), 7 * 1440);
    EXPECT_EQ(status["lists"]["local"].asUInt(), agent.Trust("local").size());
    EXPECT_EQ(status["alerts"].asInt(), 0);
}

TEST(LearningTest, WhatRanBeforeThePolicyCameIsLearnedToo) {
    Agent agent;
    const std::string image = agent.MakeProgram("early");
    const ScopedProcess early(agent.Scope().Path(), {image, "60"});
    agent.Start();
    agent.ApplyAndWatch({});

    EXPECT_TRUE(WaitFor([&] { return HasAll(KeptEntries(agent), {image}); }));
    ExpectEntriesTellTheFiles(ByPath(agent.Trust("local")), {image});
}

TEST(LearningTest, WhatRunsOutsideTheScopeIsNotLearned) {
    Agent agent;
    const std::string inside = agent.MakeProgram("inside");
    const std::string outside = agent.MakeProgram("outside");
    agent.Start();
    agent.ApplyAndWatch({});
    const ScopedProcess stranger("", {outside, "60"});
    const ScopedProcess member(agent.Scope().Path(), {inside, "60"});

    ASSERT_TRUE(WaitFor([&] { return HasAll(ByPath(agent.Trust("local")), {inside}); }));
    EXPECT_FALSE(HasAll(ByPath(agent.Trust("local")), {outside}));
}

TEST(LearningTest, AScriptIsLearnedUnderItsOwnPath) {
    Agent agent;
    const std::string script = agent.Work().Write("script.sh", "#!/bin/bash\nread -r line\n");
    fs::permissions(script, fs::perms::owner_all);
    agent.Start();
    agent.ApplyAndWatch({});
    Readers readers(agent);
    readers.Start({script});
    readers.Start({"/usr/bin/cat"});

    ASSERT_TRUE(WaitFor([&] { return HasAll(ByPath(agent.Trust("local")), {script, "/usr/bin/cat"}); }));
    ExpectEntriesTellTheFiles(ByPath(agent.Trust("local")), {script});
    EXPECT_EQ(ByPath(agent.Trust("local"))[script]["type"].asInt(), MATCHED_BY_PATH);
    EXPECT_FALSE(HasAll(ByPath(agent.Trust("local")), {fs::canonical("/bin/bash").string()}));
}

TEST(LearningTest, TheModeIsReportedAtTheStart) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});

    ASSERT_TRUE(WaitFor([&] { return !agent.Reports("whitelist_6").empty(); }));
    Json::Value learning;
    learning["learn_stat"] = LEARNING;
    EXPECT_EQ(agent.Reports("whitelist_6").front()["data"], learning);
}

TEST(LearningTest, TheFullListIsReportedOncePerScanPeriod) {
    Agent agent;
    const std::string image = agent.MakeProgram("scanned");
    const ScopedProcess process(agent.Scope().Path(), {image, "60"});
    agent.Start();
    agent.ApplyAndWatch({.scanPeriodSeconds = 2});

    ASSERT_TRUE(WaitFor([&] { return agent.Reports("whitelist_2").size() >= 2; }));
    const auto entries = ByPath(agent.Reports("whitelist_2").front()["data"]["process_info"]);
    ExpectEntriesTellTheFiles(entries, {image});
    EXPECT_EQ(entries.at(image)["type"].asInt(), MATCHED_BY_HASH);
    // Every run counts one, so with a run a second at most every other second has a report.
    const std::vector<Json::Value> reports = agent.Reports("whitelist_2");
    EXPECT_GE(reports[1]["time"].asInt64() - reports[0]["time"].asInt64(), 1);
    EXPECT_LE(reports.size(), static_cast<std::size_t>(agent.CountInLog("full proc START") / 2));
}

TEST(LearningTest, AFullListIsNotReportedBeforeItsPeriodIsOver) {
    Agent agent;
    const ScopedProcess process(agent.Scope().Path(), {agent.MakeProgram("any"), "60"});
    agent.Start();
    agent.ApplyAndWatch({.scanPeriodSeconds = 3600});

    ASSERT_TRUE(WaitFor([&] { return agent.CountInLog("full proc START") >= 3; }));
    EXPECT_TRUE(agent.Reports("whitelist_2").empty());
}

TEST(LearningTest, AKilledDaemonHasLostNothingThatItHadKept) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});
    std::vector<std::string> images;
    {
        Readers readers(agent);
        images = readers.StartAll();
        ASSERT_TRUE(WaitFor([&] { return HasAll(KeptEntries(agent), images); }));
        ASSERT_TRUE(WaitFor([&] { return HasAll(ReportedEntries(agent, "whitelist_3"), images); }));
    }
    agent.Kill9();
    EXPECT_TRUE(HasAll(KeptEntries(agent), images));

    agent.StartWatching();
    EXPECT_TRUE(WaitFor([&] { return HasAll(ByPath(agent.Trust("local")), images); }));
    ExpectEntriesTellTheFiles(ReportedEntries(agent, "whitelist_3"), images);
    EXPECT_EQ(agent.GetMode(), LEARNING);
    EXPECT_EQ(agent.Status()["policy"]["hash"].asString(), "policy-1");
}

} // namespace
} // namespace SystemTest
