#include <algorithm>
#include <filesystem>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;

namespace fs = std::filesystem;

constexpr const char* SERVER_LIST = "whitelist_10001";

std::string ToText(const Json::Value& value) {
    return SDK::JsonUtils::JsonToString(value);
}

Json::Value MakeServerEntry(const std::string& name) {
    Json::Value entry;
    entry["name"] = name;
    entry["path"] = "/opt/" + name;
    entry["hash"] = std::string(64, 'a');
    entry["size"] = 10;
    entry["type"] = 1;
    return entry;
}

Json::Value MakePresetEntry(char digit) {
    Json::Value entry;
    entry["filename"] = std::string("file-") + digit;
    entry["sha256"] = std::string(64, digit);
    entry["os"] = "debian";
    entry["version"] = "12";
    return entry;
}

void ExpectOneLine(const std::string& text) {
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

// ---- the server's list

TEST(CommandTest, TheServersListIsReplacedAsAWhole) {
    Agent agent;
    agent.MakeDetecting();
    const Result sent = agent.Command(SERVER_LIST, MakeListDocument({MakeServerEntry("a"), MakeServerEntry("b")}));
    EXPECT_EQ(sent.status, 0);
    EXPECT_EQ(sent.out, "command done\n");
    EXPECT_EQ(sent.err, "");
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 2);
    EXPECT_EQ(agent.Trust("server").size(), 2U);

    EXPECT_EQ(agent.Command(SERVER_LIST, MakeListDocument({MakeServerEntry("c")})).status, 0);
    ASSERT_EQ(agent.Trust("server").size(), 1U);
    EXPECT_EQ(agent.Trust("server")[0]["name"].asString(), "c");
}

TEST(CommandTest, ABrokenServerListKeepsTheOldOneAndOneWithoutEntriesEmptiesIt) {
    Agent agent;
    agent.MakeDetecting();
    EXPECT_EQ(agent.Command(SERVER_LIST, MakeListDocument({MakeServerEntry("a")})).status, 0);
    const Result broken = agent.Command(SERVER_LIST, "{\"process_info\": [");
    EXPECT_EQ(broken.status, 0);
    EXPECT_EQ(broken.err, "note: parse json of sync service trust process failed\n");
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 1);

    const Result empty = agent.Ctl({"command", SERVER_LIST});
    EXPECT_EQ(empty.status, 1);
    EXPECT_THAT(empty.err, HasSubstr("without a document"));
    ExpectOneLine(empty.err);
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 1);

    const Result noList = agent.Command(SERVER_LIST, "{\"process_info\": {}}");
    EXPECT_EQ(noList.status, 0);
    EXPECT_EQ(noList.err, "note: sync service trust process json is no expect\n");
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 0);
}

TEST(CommandTest, EntriesThatAreNotCompleteAreLeftOut) {
    Agent agent;
    agent.MakeDetecting();
    Json::Value noSize = MakeServerEntry("no-size");
    noSize["size"] = 0;
    Json::Value noHash = MakeServerEntry("no-hash");
    noHash.removeMember("hash");
    EXPECT_EQ(agent.Command(SERVER_LIST, MakeListDocument({noSize, MakeServerEntry("whole"), noHash})).status, 0);
    ASSERT_EQ(agent.Trust("server").size(), 1U);
    EXPECT_EQ(agent.Trust("server")[0]["name"].asString(), "whole");
}

TEST(CommandTest, AServerListByCommandLastsUntilTheNextStartAndTheFileIsLoadedThen) {
    Agent agent;
    agent.WriteLearned({});
    agent.Root().Write("conf/arsserverproc.data", MakeListDocument({MakeServerEntry("of-the-file")}));
    const auto names = [&] { return ToText(agent.Trust("server")); };
    agent.Start();
    EXPECT_EQ(agent.Apply(MakePolicy({})).status, 0);
    EXPECT_TRUE(TestSupport::WaitFor([&] { return names().find("of-the-file") != std::string::npos; }));
    EXPECT_EQ(agent.Command(SERVER_LIST, MakeListDocument({MakeServerEntry("by-command")})).status, 0);
    EXPECT_THAT(names(), HasSubstr("by-command"));
    agent.Stop();
    agent.Start();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return names().find("of-the-file") != std::string::npos; }));
    EXPECT_EQ(agent.Trust("server").size(), 1U);
}

// ---- the two presets

struct Preset {
    const char* key;
    const char* list;
    const char* counted;
    const char* file;
};

// How GoogleTest shows the parameter.
void PrintTo(const Preset& preset, std::ostream* stream) {
    *stream << preset.key;
}

class PresetTest : public testing::TestWithParam<Preset> {
protected:
    PresetTest() { agent.MakeDetecting(); }

    std::string HashOf(const std::string& text) const { return Sha256Of(agent.Work().Write("to-hash", text)); }

    Result Send(const std::string& url, const std::string& hash) {
        Json::Value command;
        command["url"] = url;
        command["hash"] = hash;
        return agent.Command(GetParam().key, ToText(command));
    }

    int Count() const { return agent.Status()["lists"][GetParam().counted].asInt(); }

    Agent agent;
    WebServer server;
};

TEST_P(PresetTest, AListIsFetchedKeptAndLoadedAtTheNextStart) {
    const std::string text = MakeListDocument({MakePresetEntry('a'), MakePresetEntry('b')});
    const Result sent = Send(server.Put("list", text), HashOf(text));
    EXPECT_EQ(sent.status, 0) << sent.err;
    EXPECT_EQ(sent.err, "");
    EXPECT_EQ(Count(), 2);
    EXPECT_EQ(agent.Trust(GetParam().list)[0], MakePresetEntry('a'));
    EXPECT_EQ(agent.Root().Read(GetParam().file), text);

    const std::string next = MakeListDocument({MakePresetEntry('c')});
    EXPECT_EQ(Send(server.Put("next", next), HashOf(next)).status, 0);
    EXPECT_EQ(Count(), 1);
    agent.Stop();
    agent.StartWatching();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return Count() == 1; }));
    EXPECT_EQ(agent.Trust(GetParam().list)[0], MakePresetEntry('c'));
}

TEST_P(PresetTest, AListThatIsThereAlreadyIsNotFetchedAgain) {
    const std::string text = MakeListDocument({MakePresetEntry('a')});
    EXPECT_EQ(Send(server.Put("list", text), HashOf(text)).status, 0);
    const Result again = Send(server.GetUrl("nothing-there"), HashOf(text));
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(Count(), 1);
}

TEST_P(PresetTest, WhatGoesWrongLeavesListAndFileAsTheyWere) {
    const std::string text = MakeListDocument({MakePresetEntry('a')});
    EXPECT_EQ(Send(server.Put("list", text), HashOf(text)).status, 0);
    const fs::file_time_type written = fs::last_write_time(agent.Root() / GetParam().file);
    const std::string next = MakeListDocument({MakePresetEntry('b'), MakePresetEntry('c')});
    const std::string url = server.Put("next", next);
    const std::string hash = HashOf(next);

    const auto expectUnchanged = [&](const char* what) {
        SCOPED_TRACE(what);
        EXPECT_EQ(Count(), 1);
        EXPECT_EQ(agent.Trust(GetParam().list)[0], MakePresetEntry('a'));
        EXPECT_EQ(agent.Root().Read(GetParam().file), text);
        EXPECT_EQ(fs::last_write_time(agent.Root() / GetParam().file), written);
    };
    // The module does not tell a failed download from a good one; the operator is told by a note.
    const auto expectNote = [](const Result& result) {
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.err, HasSubstr("note: download failed. ["));
        ExpectOneLine(result.err);
    };
    expectNote(Send(url, std::string(64, '0')));
    expectUnchanged("wrong digest");
    expectNote(Send(server.GetUrl("nothing-there"), hash));
    expectUnchanged("404");
    expectNote(Send(server.PutBroken("broken", next), hash));
    expectUnchanged("broken off");
    expectNote(Send("gopher://127.0.0.1/", hash));
    expectUnchanged("another protocol");
    EXPECT_EQ(Send("", hash).status, 0);
    expectUnchanged("no URL");
    EXPECT_EQ(Send(url, hash.substr(1)).status, 0);
    expectUnchanged("63 characters of digest");
    EXPECT_EQ(agent.Command(GetParam().key, "{\"url\": ").status, 0);
    expectUnchanged("not JSON");
    EXPECT_EQ(agent.Ctl({"command", GetParam().key}).status, 1);
    expectUnchanged("empty");
    for (const auto& entry : fs::directory_iterator(agent.Root() / "conf")) {
        EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos) << entry.path();
    }

    EXPECT_EQ(Send(url, hash).status, 0);
    EXPECT_EQ(Count(), 2);
}

INSTANTIATE_TEST_SUITE_P(Both, PresetTest,
                         testing::Values(Preset{"whitelist_10002", "os", "os_preset", "conf/osPresetProcess.dat"},
                                         Preset{"whitelist_10003", "service", "service_preset",
                                                "conf/servicePresetProcess.dat"}),
                         [](const auto& preset) { return std::string(preset.param.list); });

// ---- the others

TEST(CommandTest, AnUnknownKeyIsRefused) {
    Agent agent;
    agent.Start();
    for (const char* key : {"whitelist_10006", "10001", "whitelist_1000"}) {
        const Result sent = agent.Command(key, "{}");
        EXPECT_EQ(sent.status, 1) << key;
        EXPECT_EQ(sent.err, std::string("corvalentctl: no module takes commands under key ") + key + "\n");
    }
    EXPECT_EQ(agent.Ctl({"command", "../status"}).status, 2);
}

TEST(CommandTest, TheCommandsWithoutADocumentTakeAnyTextAndNone) {
    Agent agent;
    agent.MakeDetecting();
    EXPECT_EQ(agent.Command("whitelist_10004", "{broken").status, 0);
    EXPECT_EQ(agent.GetMode(), LEARNED);
    EXPECT_EQ(agent.Ctl({"command", "whitelist_10005"}).status, 0);
    EXPECT_EQ(agent.GetMode(), DETECTING);
    EXPECT_EQ(agent.Ctl({"command", "whitelist_10004"}).status, 0);
    EXPECT_EQ(agent.GetMode(), LEARNED);
    EXPECT_EQ(agent.Command("whitelist_10005", "{broken").status, 0);
    EXPECT_EQ(agent.GetMode(), DETECTING);
}

} // namespace
} // namespace SystemTest
