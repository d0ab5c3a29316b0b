
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/Agent.h"
#include "system/CtlOutput.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;

const std::string DIGEST(64, 'a');

Json::Value MakeEntryOf(const std::string& name) {
    Json::Value entry;
    entry["name"] = name;
    entry["path"] = "/not/on/this/host/" + name;
    entry["hash"] = DIGEST;
    entry["size"] = 10;
    entry["type"] = 1;
    return entry;
}

Json::Value Without(Json::Value entry, const char* key) {
    entry.removeMember(key);
    return entry;
}

Json::Value With(Json::Value entry, const char* key, const Json::Value& value) {
    entry[key] = value;
    return entry;
}

Json::Value EntriesIn(const std::string& document) {
    return Parse(document)["process_info"];
}

TEST(TrustTest, TheLocalListOfOneAgentBecomesTheServerListOfAnother) {
    Agent agent;
    agent.MakeDetecting({.programs = {agent.MakeProgram("tool")}}, {});
    const std::string file = agent.Work() / "list.json";
    const Result exported = agent.Ctl({"trust", "export", "-o", file});
    EXPECT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(exported.out, "60 entries written\n");
    EXPECT_EQ(agent.Ctl({"trust", "export"}).out, agent.Work().Read("list.json"));
    EXPECT_EQ(EntriesIn(agent.Work().Read("list.json")), agent.Trust("local"));

    const Result imported = agent.Ctl({"trust", "import", file});
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_EQ(imported.out, "server list replaced: 60 of 60 entries taken\n");
    EXPECT_EQ(imported.err, "");
    const Result server = agent.Ctl({"trust", "export", "--list", "server"});
    EXPECT_EQ(agent.Ctl({"trust", "import", "-"}, server.out).status, 0);
    EXPECT_EQ(agent.Ctl({"trust", "export", "--list", "server"}).out, server.out);
}

TEST(TrustTest, AServerListOfFilesThatAreElsewhereIsExportedWhole) {
    Agent agent;
    agent.MakeDetecting();
    const std::string list = MakeListDocument({MakeEntryOf("a"), With(MakeEntryOf("b"), "type", 2)});
    EXPECT_EQ(agent.Ctl({"trust", "import", "-"}, list).status, 0);
    EXPECT_EQ(agent.Ctl({"trust", "export", "--list", "server"}).out, list);
}

TEST(TrustTest, APresetListIsExportedAsItIsAppliedAgain) {
    Agent agent;
    agent.MakeProgram("tool");
    const std::string file = agent.Work() / "preset.json";
    EXPECT_EQ(agent.Ctl({"preset", "build", "--from", agent.Work() / "programs", "-o", file}).status, 0);
    agent.MakeDetecting();
    EXPECT_EQ(agent.Ctl({"preset", "apply", file}).status, 0);
    for (const char* list : {"os", "service"}) {
        const std::string copy = agent.Work() / (std::string(list) + ".json");
        const Result exported = agent.Ctl({"trust", "export", "--list", "os", "-o", copy});
        EXPECT_EQ(exported.status, 0) << exported.err;
        EXPECT_EQ(agent.Ctl({"preset", "apply", copy, "--list", list}).status, 0);
        EXPECT_EQ(agent.Trust(list), EntriesIn(agent.Work().Read("preset.json")));
    }
}

TEST(TrustTest, EveryEntryThatIsNotTakenIsNamedWithTheReason) {
    Agent agent;
    agent.MakeDetecting();
    const Json::Value good = MakeEntryOf("good");
    const Result imported =
        agent.Ctl({"trust", "import", "-"},
                  MakeListDocument({good, 7, Without(good, "name"), With(good, "path", ""), With(good, "hash", 5),
                                    With(good, "size", 0), With(good, "size", "10"), With(good, "type", 3),
                                    With(good, "hash", "ABC"), With(With(good, "hash", "ABC"), "type", 2)}));
    EXPECT_EQ(imported.status, 0);
    EXPECT_EQ(imported.out, "server list replaced: 4 of 10 entries taken\n");
    EXPECT_EQ(imported.err,
              "note: process_info[1] is left out: no object\n"
              "note: process_info[2] is left out: \"name\" is missing, empty or no string\n"
              "note: process_info[3] (good) is left out: \"path\" is missing, empty or no string\n"
              "note: process_info[4] (good) is left out: \"hash\" is missing, empty or no string\n"
              "note: process_info[5] (good) is left out: \"size\" is missing, 0 or no whole number\n"
              "note: process_info[6] (good) is left out: \"size\" is missing, 0 or no whole number\n"
              "note: process_info[7] (good) can never match: \"type\" is neither 1 nor 2\n"
              "note: process_info[8] (good) can never match: \"hash\" is not 64 lowercase hexadecimal digits\n");
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 4);
}

TEST(TrustTest, ADocumentThatHoldsNoListIsNotDelivered) {
    Agent agent;
    agent.MakeDetecting();
    EXPECT_EQ(agent.Ctl({"trust", "import", "-"}, MakeListDocument({MakeEntryOf("kept")})).status, 0);
    ExpectFailure(agent.Ctl({"trust", "import", agent.Work() / "none"}), 1, "No such file");
    ExpectFailure(agent.Ctl({"trust", "import", "-"}, "{"), 1, "[standard input] is not a JSON document");
    ExpectFailure(agent.Ctl({"trust", "import", "-"}, "{}"), 1, "has no array \"process_info\"");
    const Result incomplete = agent.Ctl({"trust", "import", "-"}, R"({"process_info":[{}]})");
    EXPECT_EQ(incomplete.status, 1);
    EXPECT_THAT(incomplete.err, HasSubstr("none of the 1 entries is complete: nothing was delivered\n"));
    EXPECT_EQ(agent.Trust("server")[0]["name"].asString(), "kept");

    EXPECT_EQ(agent.Ctl({"trust", "import", "-"}, R"({"process_info":[]})").out,
              "server list replaced: 0 of 0 entries taken\n");
    EXPECT_EQ(agent.Status()["lists"]["server"].asInt(), 0);
}

TEST(TrustTest, WhatCannotBeDoneIsOneLine) {
    Agent agent;
    const std::string list = MakeListDocument({MakeEntryOf("a")});
    ExpectFailure(agent.Ctl({"trust", "import", "-"}, list), 69, "no daemon listens on [");
    ExpectFailure(agent.Ctl({"trust", "export"}), 69, "no daemon listens on [");
    ExpectFailure(agent.Ctl({"trust", "import"}), 2, "FILE");
    ExpectFailure(agent.Ctl({"trust", "export", "--list", "all"}), 2, "all");
    ExpectFailure(agent.Ctl({"trust", "export", "-o", "/dev/null"}), 1, "[/dev/null]: it is no regular file");
    agent.MakeDetecting();
    ExpectFailure(agent.Ctl({"trust", "export", "-o", agent.Work() / "none/list"}), 1, "No such file");
}

} // namespace
} // namespace SystemTest
