#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/StateFiles.h"

namespace SystemTest {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr std::size_t LIST_LIMIT_BYTES = 10485760;

struct Damage {
    const char* name;
    std::string (*inflict)(const std::string& whole);
};

std::string Binary(std::size_t length) {
    std::string bytes(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<char>((i * 2654435761U) >> 13U);
    }
    return bytes;
}

const Damage TRUNCATED{"truncated", [](const std::string& whole) { return whole.substr(0, whole.size() / 2); }};
const Damage OVERWRITTEN{"overwritten in the middle", [](const std::string& whole) {
                             return whole.substr(0, whole.size() / 2) + "\x01{{\x02" +
                                    whole.substr(std::min(whole.size(), whole.size() / 2 + 4));
                         }};
const Damage BINARY{"binary", [](const std::string&) { return Binary(5000); }};
const Damage ANOTHER_DOCUMENT{"another document", [](const std::string&) { return std::string("[1, 2]"); }};
const Damage OVERLONG{"over-long", [](const std::string& whole) { return whole + std::string(LIST_LIMIT_BYTES, ' '); }};

const std::vector<Damage> ALL_DAMAGES = {TRUNCATED, OVERWRITTEN, BINARY, ANOTHER_DOCUMENT, OVERLONG};

// An agent that has detected for a while, and one of whose files suffered while it was down.
class Damaged : public testing::Test {
protected:
    Damaged() {
        agent.Root().Write("conf/arsserverproc.data", list);
        agent.Root().Write("conf/osPresetProcess.dat", preset);
        agent.Root().Write("conf/servicePresetProcess.dat", preset);
        agent.MakeDetecting();
        agent.Stop();
    }

    // Damages the file, starts the agent, and stops it when `look` has looked. The log has one record about it that
    // names the file.
    template <typename Look> void Inflict(const Damage& damage, const std::string& file, const Look& look) {
        SCOPED_TRACE(file + " " + damage.name);
        const std::string whole = agent.Root().Read(file);
        const std::string damaged = damage.inflict(whole);
        agent.Root().Write(file, damaged);
        fs::remove(agent.Root() / "log/corvalent.log");
        agent.StartWatching();
        look(damaged);
        agent.Stop();
        agent.Root().Write(file, whole);
    }

    void ExpectTold(const std::string& file, const std::string& text) const {
        const std::string record = "[" + (agent.Root() / file) + "] " + text;
        EXPECT_TRUE(WaitFor([&] { return agent.CountInLog(record) > 0; })) << record;
        EXPECT_EQ(agent.CountInLog(record), 1);
        std::istringstream log(agent.Root().Read("log/corvalent.log"));
        for (std::string line; std::getline(log, line);) {
            if (line.find(record) != std::string::npos) {
                EXPECT_THAT(line, HasSubstr("Z Error "));
            }
        }
    }

    // What `doctor` says of a check, with its result in front.
    std::string Doctor(const std::string& check) {
        for (const Json::Value& finding : ParseLines(agent.Ctl({"doctor", "--json"}).out)) {
            if (finding["check"] == check) {
                return finding["result"].asString() + ": " + finding["found"].asString();
            }
        }
        return "no such check";
    }

    // It goes on judging.
    void ExpectJudging() {
        agent.WaitForMode(DETECTING);
        agent.DrainEvents();
    }

    Agent agent;
    const std::string list = MakeListDocument({MakeEntry("/usr/bin/tail")});
    const std::string preset =
        R"({"process_info":[{"filename":"/bin/x","os":"o","sha256":")" + std::string(64, 'a') + R"(","version":"1"}]})";
};

TEST_F(Damaged, LocalListIsKeptAsideAndTold) {
    for (const Damage& damage : ALL_DAMAGES) {
        Inflict(damage, "conf/whitelist.data", [&](const std::string& damaged) {
            ExpectTold("conf/whitelist.data", "is not loaded, the local list begins empty: ");
            ExpectJudging();
            EXPECT_EQ(agent.Root().Read("conf/whitelist.data.unloaded"), damaged);
            EXPECT_THAT(Doctor("unloaded state"), AllOf(HasSubstr("warning"), HasSubstr("whitelist.data.unloaded")));
        });
    }
}

// The known danger: learning writes the list anew.
TEST_F(Damaged, LocalListThatLearningReplacesIsStillThereAside) {
    const std::string whole = agent.Root().Read("conf/whitelist.data");
    const std::string damaged = TRUNCATED.inflict(whole);
    agent.Root().Write("conf/whitelist.data", damaged);
    agent.WriteState(0, LEARNING);
    agent.Root().Write("conf/desired.json", "{\"detect\":false}");
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), LEARNING);
    const ScopedProcess learned(agent.Scope().Path(), {agent.MakeProgram("learned"), "60"});

    EXPECT_TRUE(WaitFor([&] { return agent.Root().Read("conf/whitelist.data").find("learned") != std::string::npos; }));

    EXPECT_EQ(agent.Root().Read("conf/whitelist.data.unloaded"), damaged);
    ExpectTold("conf/whitelist.data", "is not loaded, the local list begins empty: it is damaged");
    agent.Stop();
    // A whole list does not touch what is kept.
    agent.StartWatching();
    agent.Stop();
    EXPECT_EQ(agent.Root().Read("conf/whitelist.data.unloaded"), damaged);
}

TEST_F(Damaged, ServerAndPresetListsStayAsTheyAreAndAreTold) {
    const std::vector<std::pair<const char*, const char*>> lists = {
        {"conf/arsserverproc.data", "is not loaded, there is no server list: "},
        {"conf/osPresetProcess.dat", "is not loaded, there is no OS preset list: "},
        {"conf/servicePresetProcess.dat", "is not loaded, there is no service preset list: "}};
    for (const auto& [file, told] : lists) {
        for (const Damage& damage : ALL_DAMAGES) {
            Inflict(damage, file, [&, name = file, text = told](const std::string& damaged) {
                ExpectTold(name, text);
                ExpectJudging();
                EXPECT_EQ(agent.Root().Read(name), damaged);
                EXPECT_THAT(Doctor(name), HasSubstr("failure"));
            });
        }
    }
}

TEST_F(Damaged, LearningStateIsKeptAsideAndToldAndTheWishStands) {
    for (const Damage& damage : {BINARY, ANOTHER_DOCUMENT}) {
        Inflict(damage, "conf/modwhitelist.ini", [&](const std::string& damaged) {
            ExpectTold("conf/modwhitelist.ini", "is damaged, it holds no LearnTime: the time learned begins with 0");
            agent.WaitForMode(LEARNING);
            EXPECT_EQ(agent.Root().Read("conf/modwhitelist.ini.unloaded"), damaged);
            EXPECT_TRUE(agent.Status()["desired_detect"].asBool());
            EXPECT_THAT(Doctor("detection"), HasSubstr("warning: wished"));
        });
    }
}

TEST_F(Damaged, PolicyIsRefusedNamedAndLeft) {
    for (const Damage& damage : {TRUNCATED, OVERWRITTEN, BINARY, ANOTHER_DOCUMENT}) {
        SCOPED_TRACE(damage.name);
        const std::string whole = agent.Root().Read("conf/policy.json");
        const std::string damaged = damage.inflict(whole);
        agent.Root().Write("conf/policy.json", damaged);
        fs::remove(agent.Root() / "log/corvalent.log");
        agent.Start();
        ExpectTold("conf/policy.json", "was refused, going on without");
        EXPECT_TRUE(agent.Status()["policy"].isNull());
        EXPECT_EQ(agent.Root().Read("conf/policy.json"), damaged);
        EXPECT_THAT(Doctor("policy"), HasSubstr("failure"));
        agent.Stop();
        agent.Root().Write("conf/policy.json", whole);
    }
}

TEST_F(Damaged, WishCountsAsNoneAndIsTold) {
    for (const Damage& damage : {TRUNCATED, BINARY, ANOTHER_DOCUMENT, OVERLONG}) {
        Inflict(damage, "conf/desired.json", [&](const std::string& damaged) {
            EXPECT_EQ(agent.CountInLog("detection counts as not wished"), 1);
            EXPECT_FALSE(agent.Status()["desired_detect"].asBool());
            EXPECT_EQ(agent.Root().Read("conf/desired.json"), damaged);
            EXPECT_THAT(Doctor("detection"), HasSubstr("warning: not wished"));
        });
    }
}

TEST_F(Damaged, SettingsEndTheStartWithStatus78AndOneLine) {
    const std::string whole = agent.Root().Read("conf/agent.json");
    for (const std::string& damaged :
         {std::string(), TRUNCATED.inflict(whole), BINARY.inflict(whole), OVERLONG.inflict(whole)}) {
        agent.Root().Write("conf/agent.json", damaged);
        const Result run = agent.RunToTheEnd();
        EXPECT_EQ(run.status, 78);
        EXPECT_THAT(run.err, HasSubstr(agent.Root() / "conf/agent.json"));
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_EQ(agent.Root().Read("conf/agent.json"), damaged);
    }
}

TEST_F(Damaged, HistoryIsMovedAsideWholeAndToldAndANewOneBegun) {
    const Damage pages{"damaged in its pages",
                       [](const std::string& whole) { return whole.substr(0, 100) + Binary(whole.size() - 100); }};
    for (const Damage& damage : {TRUNCATED, BINARY, pages}) {
        SCOPED_TRACE(damage.name);
        const std::string damaged = damage.inflict(agent.Root().Read("data/reports.db"));
        agent.Root().Write("data/reports.db", damaged);
        fs::remove(agent.Root() / "log/corvalent.log");
        agent.StartWatching();
        EXPECT_EQ(agent.CountInLog("reports database [" + (agent.Root() / "data/reports.db") + "] is damaged ("), 1);
        EXPECT_THAT(Doctor("damaged histories"), HasSubstr("warning"));
        ExpectJudging();
        agent.Stop();
        std::vector<std::string> kept;
        for (const std::string& name : NamesIn(agent.Root() / "data")) {
            if (name.starts_with("reports.db.corrupt-")) {
                kept.push_back(agent.Root().Read("data/" + name));
            }
        }
        EXPECT_THAT(kept, Contains(damaged));
    }
}

// An empty file is what a first start makes, or a new history.
TEST_F(Damaged, EmptyFilesAreBeginnings) {
    for (const char* file : {"conf/whitelist.data", "conf/arsserverproc.data", "conf/modwhitelist.ini",
                             "conf/osPresetProcess.dat", "conf/servicePresetProcess.dat", "data/reports.db"}) {
        agent.Root().Write(file, "");
    }
    agent.StartWatching();
    agent.WaitForMode(LEARNING);
    agent.Stop();
    EXPECT_FALSE(fs::exists(agent.Root() / "conf/whitelist.data.unloaded"));
    EXPECT_FALSE(fs::exists(agent.Root() / "conf/modwhitelist.ini.unloaded"));
}

// One of many names of one file, all of the same length.
std::string NameTail(std::size_t number) {
    constexpr int BITS = 17;
    std::string path = "/usr/bin/";
    for (int bit = 0; bit < BITS; ++bit) {
        path += ((number >> bit) & 1U) != 0 ? "./" : "//";
    }
    return path + "tail";
}

// A list document of exactly that many bytes, as the agent writes it.
std::string MakeListOf(std::size_t bytes) {
    Json::Value entry = MakeEntry("/usr/bin/tail");
    entry["path"] = NameTail(0);
    const std::size_t frame = MakeListDocument({}).size();
    const std::size_t each = MakeListDocument({entry, entry}).size() - MakeListDocument({entry}).size();
    std::vector<Json::Value> entries;
    for (std::size_t i = 0; i + 1 < (bytes - frame) / each; ++i) {
        entry["path"] = NameTail(i);
        entries.push_back(entry);
    }
    const std::size_t missing = bytes - MakeListDocument(entries).size();
    entries.back()["name"] = std::string(missing, 'n') + "tail";
    return MakeListDocument(entries);
}

// The list is stored whole; the operator hears that it will not be read while it is in memory yet.
TEST_F(Damaged, LocalListThatGrowsBeyondTheLimitIsToldWhenItIsWrittenAndKeptByTheNextStart) {
    const std::string told = "it will not be loaded by the next start";
    agent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + agent.Scope().Name() + R"("}})");
    agent.Root().Write("conf/whitelist.data", MakeListOf(LIST_LIMIT_BYTES - 1));
    agent.Root().Write("conf/desired.json", "{\"detect\":false}");
    agent.WriteState(0, LEARNING);
    agent.StartWatching();
    ASSERT_TRUE(WaitFor([&] { return agent.Status()["lists"]["local"].asInt() > 1; }));
    EXPECT_EQ(agent.CountInLog(told), 0);
    const std::string path = agent.MakeProgram("one-too-many");
    const ScopedProcess learned(agent.Scope().Path(), {path, "600"});
    EXPECT_TRUE(WaitFor([&] { return agent.CountInLog(told) > 0; }));
    agent.Stop();
    EXPECT_EQ(agent.CountInLog(told), 1);
    const std::string stored = agent.Root().Read("conf/whitelist.data");
    EXPECT_GT(stored.size(), LIST_LIMIT_BYTES);
    EXPECT_THAT(stored.substr(0, stored.size()), HasSubstr(path));

    agent.StartWatching();
    ExpectTold("conf/whitelist.data",
               "is not loaded, the local list begins empty: it is larger than the 10485760 bytes");
    EXPECT_TRUE(agent.Root().Read("conf/whitelist.data.unloaded") == stored);
    agent.Stop();
}

} // namespace
} // namespace SystemTest
