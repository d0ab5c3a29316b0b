#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/Usage.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

// As much as is read of a list file.
constexpr std::size_t MOST_OF_A_FILE = 10485760;

// As much as is taken of a document that is delivered.
constexpr std::size_t MOST_OF_A_DOCUMENT = 64 * 1024 * 1024;

// A document of exactly so many bytes: the entry as often as it fits, each time under another number in place of
// "#", and blanks. `count` becomes the number of entries.
std::string MakeDocument(const std::string& entry, std::size_t bytes, int& count) {
    const std::string end = "]}";
    const std::size_t mark = entry.find('#');
    std::string text = R"({"process_info":[)";
    std::string next = entry.substr(0, mark) + "0" + entry.substr(mark + 1);
    for (count = 0; text.size() + 1 + next.size() + end.size() <= bytes;) {
        text += (count == 0 ? "" : ",") + next;
        ++count;
        next = entry.substr(0, mark) + std::to_string(count) + entry.substr(mark + 1);
    }
    text += end;
    return text + std::string(bytes - text.size(), ' ');
}

const std::string PROGRAM =
    R"({"name":"program","path":"/opt/program-#","hash":")" + std::string(64, 'a') + R"(","size":1000,"type":1})";
const std::string NAMED =
    R"({"name":"program-#","path":"/opt/program","hash":")" + std::string(64, 'a') + R"(","size":1000,"type":1})";
const std::string PRESET =
    R"({"filename":"/opt/program","sha256":")" + std::string(56, 'a') + R"(#","os":"debian","version":"12"})";

// All lists of an agent at its start, each in a file of so many bytes.
class LargeFilesTest : public testing::Test {
protected:
    void StartWith(std::size_t bytes) {
        agent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + agent.Scope().Name() +
                                                  R"("}, "log": {"level": "information"}})");
        agent.WriteState(43200, LEARNED);
        local = MakeDocument(PROGRAM, bytes, locals);
        agent.Root().Write("conf/whitelist.data", local);
        agent.Root().Write("conf/arsserverproc.data", MakeDocument(NAMED, bytes, servers));
        const std::string preset = MakeDocument(PRESET, bytes, presets);
        agent.Root().Write("conf/osPresetProcess.dat", preset);
        agent.Root().Write("conf/servicePresetProcess.dat", preset);
        agent.Start();
        agent.ApplyAndWatch({});
    }

    void ExpectAllLoaded() {
        EXPECT_TRUE(WaitFor([&] { return Lists()["os_preset"] == presets; }, 3 * TestSupport::DEADLINE));
        EXPECT_EQ(Lists()["local"].asInt(), locals);
        EXPECT_EQ(Lists()["server"].asInt(), servers);
        EXPECT_EQ(Lists()["service_preset"].asInt(), presets);
        EXPECT_EQ(agent.CountInLog("InitLocalProcessFromFile read file error"), 0);
        EXPECT_EQ(agent.CountInLog("InitServerProcessFromFile read file failed"), 0);
    }

    Json::Value Lists() const { return agent.Status()["lists"]; }

    Agent agent;
    std::string local;
    int locals = 0;
    int servers = 0;
    int presets = 0;
};

TEST_F(LargeFilesTest, OneByteBelowTheLimitIsLoaded) {
    ASSERT_NO_FATAL_FAILURE(StartWith(MOST_OF_A_FILE - 1));
    ExpectAllLoaded();
}

TEST_F(LargeFilesTest, JustTheLimitIsLoaded) {
    ASSERT_NO_FATAL_FAILURE(StartWith(MOST_OF_A_FILE));
    ExpectAllLoaded();
}

TEST_F(LargeFilesTest, OneByteMoreIsNotLoadedIsKeptAndTold) {
    ASSERT_NO_FATAL_FAILURE(StartWith(MOST_OF_A_FILE + 1));
    // The last one to be read.
    EXPECT_TRUE(WaitFor([&] { return agent.CountInLog("osPresetProcess.dat] failed or empty") > 0; }));
    EXPECT_EQ(agent.CountInLog("servicePresetProcess.dat] failed or empty"), 1);
    EXPECT_EQ(agent.CountInLog("InitLocalProcessFromFile read file error"), 1);
    EXPECT_EQ(agent.CountInLog("InitServerProcessFromFile read file failed"), 1);
    for (const char* list : {"local", "server", "os_preset", "service_preset"}) {
        EXPECT_EQ(Lists()[list].asInt(), 0) << list;
    }
    const Result doctor = agent.Ctl({"doctor", "--json"});
    EXPECT_EQ(doctor.status, 1);
    for (const char* file : {"conf/arsserverproc.data", "conf/osPresetProcess.dat", "conf/servicePresetProcess.dat"}) {
        const std::vector<Json::Value> findings = ParseLines(doctor.out);
        EXPECT_EQ(std::count_if(findings.begin(), findings.end(),
                                [&](const Json::Value& finding) {
                                    return finding["check"] == file && finding["result"] == "failure";
                                }),
                  1)
            << file << "\n"
            << doctor.out;
    }
    agent.Stop();
    EXPECT_EQ(agent.Root().Read("conf/whitelist.data.unloaded"), local);
}

// A document that the server sends, of a million entries.
class LargeDocumentTest : public testing::Test {
protected:
    static constexpr int MILLION = 1000000;

    static std::string MakeMillion(const std::string& hash) {
        std::string text = R"({"process_info":[)";
        for (int i = 0; i < MILLION; ++i) {
            text += (i == 0 ? R"({"name":"p)" : R"(,{"name":"p)") + std::to_string(i) + R"(","path":"/p","hash":")" +
                    hash + R"(","size":1,"type":1})";
        }
        return text + "]}";
    }

    int CountServerList() const { return agent.Status()["lists"]["server"].asInt(); }

    void ExpectJudgingGoesOn() {
        const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "600"});
        agent.WaitForAlert(unknown.Pid());
    }

    Agent agent;
};

TEST_F(LargeDocumentTest, AMillionShortEntriesAreTakenInBoundedMemory) {
    agent.MakeDetecting();
    const std::string document = MakeMillion("h");
    ASSERT_LT(document.size(), MOST_OF_A_DOCUMENT);
    const long before = ReadResidentKib(agent);
    const Result taken = agent.Command("whitelist_10001", document, 6 * TestSupport::DEADLINE);
    EXPECT_EQ(taken.status, 0) << taken.err;
    EXPECT_EQ(CountServerList(), MILLION);
    constexpr long KIB_A_THOUSAND_ENTRIES = 1000;
    EXPECT_LT(ReadProcessStatus(agent, "VmHWM") - before, KIB_A_THOUSAND_ENTRIES * (MILLION / 1000));
    RecordProperty("peak_growth_kib", std::to_string(ReadProcessStatus(agent, "VmHWM") - before));
    ExpectJudgingGoesOn();
}

TEST_F(LargeDocumentTest, OneAboveTheLimitIsRefusedWithOneLineAndChangesNothing) {
    agent.MakeDetecting();
    ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry("/usr/bin/sleep")})).status, 0);
    const std::string document = MakeMillion(std::string(64, 'a'));
    ASSERT_GT(document.size(), MOST_OF_A_DOCUMENT);
    const long before = ReadResidentKib(agent);
    ExpectFailure(agent.Command("whitelist_10001", document), 1, std::to_string(MOST_OF_A_DOCUMENT));
    EXPECT_EQ(CountServerList(), 1);
    EXPECT_LT(ReadProcessStatus(agent, "VmHWM") - before, static_cast<long>(2 * MOST_OF_A_DOCUMENT / 1024));
    ExpectJudgingGoesOn();
}

TEST_F(LargeDocumentTest, AMillionInTheFileForTheStartAreNotLoadedAndTold) {
    agent.Root().Write("conf/arsserverproc.data", MakeMillion("h"));
    agent.MakeDetecting();
    EXPECT_EQ(CountServerList(), 0);
    EXPECT_EQ(agent.CountInLog("InitServerProcessFromFile read file failed"), 1);
    EXPECT_THAT(agent.Ctl({"doctor"}).out, testing::ContainsRegex("failure +conf/arsserverproc.data"));
    ExpectJudgingGoesOn();
}

} // namespace
} // namespace SystemTest
