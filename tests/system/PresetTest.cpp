#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/ScopedProcess.h"
#include "support/Terminal.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"

namespace SystemTest {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

class PresetTest : public testing::Test {
protected:
    std::string MakeTool(const std::string& name) { return agent.MakeProgram(name); }
    std::string ToolFolder() const { return agent.Work() / "programs"; }
    std::string ListFile() const { return agent.Work() / "preset.json"; }

    Result Build(std::vector<std::string> words) {
        words.insert(words.begin(), {"preset", "build"});
        return agent.Ctl(words);
    }

    Result BuildOfTools() { return Build({"--from", ToolFolder(), "-o", ListFile()}); }

    std::size_t CountFilesIn(const std::string& folder) const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }

    Agent agent;
};

// ---- build

TEST_F(PresetTest, ATreeBecomesAListWithItsDigest) {
    const std::string tool = MakeTool("tool");
    agent.Work().Write("programs/notes.txt", "no program");
    const Result built = BuildOfTools();
    EXPECT_EQ(built.status, 0) << built.err;
    EXPECT_EQ(built.err, "");
    EXPECT_THAT(built.out, HasSubstr("sha256       " + Sha256Of(ListFile()) + "\n"));
    EXPECT_THAT(built.out, HasSubstr("entries      1 "));
    EXPECT_THAT(built.out, HasSubstr("looked at    1 files\n"));

    const Json::Value list = Parse(agent.Work().Read("preset.json"))["process_info"];
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0]["filename"].asString(), tool);
    EXPECT_EQ(list[0]["sha256"].asString(), Sha256Of(tool));
    EXPECT_EQ(list[0]["version"].asString(), "");
    EXPECT_THAT(list[0]["os"].asString(), ContainsRegex("^[a-z]+"));
}

TEST_F(PresetTest, TheListMayGoToStandardOutputAndTheSummaryThenGoesToTheOther) {
    MakeTool("tool");
    EXPECT_EQ(BuildOfTools().status, 0);
    const Result built = Build({"--from", ToolFolder(), "-o", "-", "--json", "--jobs", "1"});
    EXPECT_EQ(built.status, 0);
    EXPECT_EQ(built.out, agent.Work().Read("preset.json"));
    const Json::Value summary = Parse(built.err);
    EXPECT_EQ(summary["sha256"].asString(), Sha256Of(ListFile()));
    EXPECT_EQ(summary["file"].asString(), "-");
    EXPECT_EQ(summary["entries"].asInt(), 1);
    EXPECT_EQ(summary["executables"].asInt(), 1);
    EXPECT_EQ(summary["bytes"].asUInt64(), built.out.size());
    EXPECT_EQ(summary["digested_bytes"].asUInt64(), fs::file_size(ToolFolder() + "/tool"));
    EXPECT_EQ(summary["unreadable"].asInt(), 0);
    EXPECT_EQ(summary["changed_conffiles"].asInt(), 0);
}

TEST_F(PresetTest, ThePackageDatabaseOfAnotherRootIsReadAsItIsSeenFromThere) {
    const TestSupport::TempDir& work = agent.Work();
    const std::string ls = work.Write("host/usr/bin/ls", "#!/bin/sh\n");
    chmod(ls.c_str(), 0755);
    fs::create_directory_symlink("usr/bin", work / "host/bin");
    work.Write("host/etc/os-release", "ID=debian\nVERSION_ID=\"12\"\n");
    work.Write("host/var/lib/dpkg/status",
               "Package: coreutils\nStatus: install ok installed\nArchitecture: amd64\nVersion: 9.1-1\n");
    work.Write("host/var/lib/dpkg/info/coreutils.list", "/.\n/bin\n/bin/ls\n/bin/dir\n");
    const Result built = Build({"--host-root", work / "host", "-o", ListFile()});
    EXPECT_EQ(built.status, 0) << built.err;
    EXPECT_THAT(built.out, HasSubstr("not there    1 files of packages\n"));
    EXPECT_EQ(work.Read("preset.json"), R"({"process_info":[{"filename":"/usr/bin/ls","os":"debian 12","sha256":")" +
                                            Sha256Of(ls) + R"(","version":"coreutils 9.1-1"}]})");
}

TEST_F(PresetTest, WhatCannotBeBuiltIsOneLineAndLeavesTheFileAsItWas) {
    agent.Work().Write("preset.json", "old");
    agent.Work().Write("empty/text", "no program");
    MakeTool("tool");
    const std::string none = agent.Work() / "none";
    ExpectFailure(Build({"--from", none, "-o", ListFile()}), 1, "[" + none + "]: No such file");
    ExpectFailure(Build({"--from", ListFile(), "-o", ListFile()}), 1, "Not a directory");
    ExpectFailure(Build({"--from", agent.Work() / "empty", "-o", ListFile()}), 1, "no executable was found in 0 files");
    ExpectFailure(Build({"--host-root", none, "-o", ListFile()}), 1, "cannot open the directory");
    ExpectFailure(Build({"--host-root", agent.Work() / "empty", "-o", ListFile()}), 1, "dpkg/status]: No such file");
    EXPECT_EQ(agent.Work().Read("preset.json"), "old");
    ExpectFailure(Build({"--from", ToolFolder(), "-o", "/dev/null"}), 1, "[/dev/null]: it is no regular file");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    ExpectFailure(Build({"--from", ToolFolder(), "-o", none + "/list"}), 1, "No such file");
}

TEST_F(PresetTest, BadUsageIsStatusTwo) {
    MakeTool("tool");
    ExpectFailure(agent.Ctl({"preset"}), 2, "subcommand");
    ExpectFailure(Build({}), 2, "");
    ExpectFailure(Build({"-o", ListFile(), "--verify", ListFile()}), 2, "");
    ExpectFailure(Build({"-o", ListFile(), "--from"}), 2, "--from");
    ExpectFailure(Build({"-o", ListFile(), "--from", ToolFolder(), "--jobs", "0"}), 2, "--jobs");
    ExpectFailure(Build({"-o", ListFile(), "--from", ToolFolder(), "--jobs", "many"}), 2, "--jobs");
    ExpectFailure(Build({"-o", ListFile(), "--from", ToolFolder(), "--all"}), 2, "--verify");
    ExpectFailure(agent.Ctl({"preset", "apply"}), 2, "FILE");
    ExpectFailure(agent.Ctl({"preset", "apply", ListFile(), "--list", "local"}), 2, "local");
    EXPECT_FALSE(fs::exists(ListFile()));
}

TEST_F(PresetTest, ATerminalShowsTheProgressAndIsLeftWithTheSummary) {
    MakeTool("tool");
    const std::string program = agent.Root() / "bin/corvalentctl";
    TestSupport::Terminal terminal({program, "preset", "build", "--from", ToolFolder(), "-o", ListFile()}, {20, 120});
    EXPECT_EQ(terminal.Wait(), 0);
    const std::string full = "  [" + std::string(30, '#') + "] 100 %  ";
    EXPECT_THAT(terminal.Raw(), AllOf(HasSubstr("files" + full + "1 of 1 files"), HasSubstr("digests" + full)));
    EXPECT_THAT(terminal.Text(), AllOf(StartsWith("preset list  " + ListFile() + "\n"), Not(HasSubstr("%"))));
}

// proc(5): "SigCgt:" is a mask of the signals that have a handler.
bool Catches(int pid, int signal) {
    std::istringstream lines(TestSupport::TempDir::ReadText("/proc/" + std::to_string(pid) + "/status"));
    const std::string key = "SigCgt:";
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key)) {
            return (std::stoull(line.substr(key.size()), nullptr, 16) >> (signal - 1) & 1U) != 0;
        }
    }
    return false;
}

TEST_F(PresetTest, AnInterruptLeavesNoHalfFile) {
    // Much to read and little on the disk.
    constexpr int FILES = 2000;
    constexpr std::uintmax_t LARGE = 10485760;
    for (int i = 0; i < FILES; ++i) {
        const std::string file = agent.Work().Write("large/" + std::to_string(i), "#!/bin/sh\n");
        chmod(file.c_str(), 0755);
        fs::resize_file(file, LARGE);
    }
    agent.Work().Write("out/list", "old");
    Program build({agent.Root() / "bin/corvalentctl", "preset", "build", "--from", agent.Work() / "large", "--jobs",
                   "2", "-o", agent.Work() / "out/list"},
                  agent.Work() / "build");
    ASSERT_TRUE(WaitFor([&] { return Catches(build.GetPid(), SIGINT); }));
    build.Signal(SIGINT);
    ASSERT_TRUE(build.WaitForEnd(DEADLINE));
    EXPECT_EQ(build.GetStatus(), 1);
    EXPECT_EQ(build.GetErrors(), "corvalentctl: interrupted, nothing was written\n");
    EXPECT_EQ(agent.Work().Read("out/list"), "old");
    EXPECT_EQ(CountFilesIn(agent.Work() / "out"), 1U);
}

// ---- verify

TEST_F(PresetTest, AListThatMatchesTheDiskIsStatusZero) {
    const std::string tool = MakeTool("tool");
    BuildOfTools();
    const Result text = Build({"--verify", ListFile(), "--from", ToolFolder()});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, "1 ok\n");
    EXPECT_EQ(text.err, "");
    const Result all = Build({"--verify", ListFile(), "--all", "--json"});
    EXPECT_EQ(all.status, 0);
    const std::vector<Json::Value> lines = ParseLines(all.out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0]["state"].asString(), "ok");
    EXPECT_EQ(lines[0]["filename"].asString(), tool);
    EXPECT_EQ(lines[1]["ok"].asInt(), 1);
    EXPECT_EQ(lines[1]["changed"].asInt(), 0);
}

TEST_F(PresetTest, WhatDiffersFromTheDiskIsTold) {
    const std::string changed = MakeTool("changed");
    const std::string missing = MakeTool("missing");
    const std::string unreadable = MakeTool("unreadable");
    MakeTool("same");
    BuildOfTools();
    const std::string before = Sha256Of(changed);
    agent.Work().Write("programs/changed", "#!/bin/sh\n");
    fs::remove(missing);
    fs::remove(unreadable);
    fs::create_directory(unreadable);
    const std::string added = MakeTool("new\ntool");
    const std::string counted = "1 changed, 1 missing, 1 unreadable";

    const Result text = Build({"--verify", ListFile(), "--from", ToolFolder()});
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.err, "corvalentctl: [" + ListFile() + "] and the disk differ: " + counted + ", 1 new\n");
    EXPECT_THAT(text.out, HasSubstr("changed     " + before + "  " + Sha256Of(changed) + "  " + changed + "\n"));
    EXPECT_THAT(text.out, ContainsRegex("missing +[0-9a-f]+ +-  +" + missing + "\n"));
    EXPECT_THAT(text.out, ContainsRegex("unreadable +[0-9a-f]+ +-  +" + unreadable + ": Is a directory\n"));
    EXPECT_THAT(text.out, ContainsRegex("new +- +[0-9a-f]+  " + ToolFolder() + "/new\\\\ntool\n"));
    EXPECT_THAT(text.out, testing::EndsWith("1 ok, " + counted + ", 1 new\n"));

    const Result json = Build({"--verify", ListFile(), "--json"});
    EXPECT_EQ(json.status, 1);
    const std::vector<Json::Value> lines = ParseLines(json.out);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0]["state"].asString(), "changed");
    EXPECT_EQ(lines[0]["expected"].asString(), before);
    EXPECT_EQ(lines[0]["found"].asString(), Sha256Of(changed));
    EXPECT_EQ(lines[1]["state"].asString(), "missing");
    EXPECT_TRUE(lines[1]["found"].isNull());
    EXPECT_EQ(lines[2]["reason"].asString(), "Is a directory");
    EXPECT_EQ(lines[3]["missing"].asInt(), 1);
    EXPECT_EQ(lines[3]["new"].asInt(), 0);
    EXPECT_FALSE(added.empty());
}

TEST_F(PresetTest, AListThatIsNoneCannotBeCompared) {
    ExpectFailure(Build({"--verify", agent.Work() / "none"}), 1, "No such file");
    ExpectFailure(Build({"--verify", agent.Work().Write("bad", "{")}), 1, "is not a JSON document");
    ExpectFailure(Build({"--verify", agent.Work().Write("bad", R"({"process_info":[{}]})")}), 1, "process_info[0]");
}

// ---- apply

TEST_F(PresetTest, AProgramThatAnAppliedListVouchesForRuns) {
    const std::string tool = MakeTool("tool");
    EXPECT_EQ(BuildOfTools().status, 0);
    agent.MakeDetecting({}, {.block = true});
    const Result applied = agent.Ctl({"preset", "apply", ListFile()});
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(applied.out, "OS preset list applied: 1 digests\n");
    EXPECT_EQ(applied.err, "");
    EXPECT_EQ(agent.Status()["lists"]["os_preset"].asInt(), 1);
    EXPECT_EQ(agent.Status()["lists"]["service_preset"].asInt(), 0);

    ScopedProcess vouched(agent.Scope().Path(), {tool, "60"});
    ScopedProcess unknown(agent.Scope().Path(), {MakeTool("unknown"), "60"});
    EXPECT_TRUE(unknown.Wait(DEADLINE));
    EXPECT_TRUE(unknown.WasKilled());
    EXPECT_FALSE(vouched.HasEnded());
    EXPECT_TRUE(agent.AlertsOf(vouched.Pid()).empty());

    const Result again = agent.Ctl({"preset", "apply", ListFile(), "--list", "service"});
    EXPECT_EQ(again.out, "service preset list applied: 1 digests\n");
    EXPECT_EQ(agent.Status()["lists"]["service_preset"].asInt(), 1);
}

TEST_F(PresetTest, AFileOfAnyNameCanBeApplied) {
    MakeTool("tool");
    agent.MakeDetecting();
    for (const char* name : {"a b%20c", "query?x#y", "new\nline", "not-\xff-utf8", "semi;colon&\"quote\\"}) {
        const std::string file = agent.Work() / name;
        EXPECT_EQ(Build({"--from", ToolFolder(), "-o", file}).status, 0);
        MakeTool(std::string("one-more-") + std::to_string(std::string(name).size()));
        const Result applied = agent.Ctl({"preset", "apply", file});
        EXPECT_EQ(applied.status, 0) << applied.err;
        EXPECT_EQ(agent.Root().Read("conf/osPresetProcess.dat"), agent.Work().Read(name));
    }
}

TEST_F(PresetTest, AnEmptyListEmptiesTheAgents) {
    MakeTool("tool");
    BuildOfTools();
    agent.MakeDetecting();
    EXPECT_EQ(agent.Ctl({"preset", "apply", ListFile()}).status, 0);
    const std::string empty = agent.Work().Write("empty.json", R"({"process_info":[]})");
    EXPECT_EQ(agent.Ctl({"preset", "apply", empty}).out, "OS preset list applied: 0 digests\n");
    EXPECT_EQ(agent.Status()["lists"]["os_preset"].asInt(), 0);
}

TEST_F(PresetTest, AListThatTheModuleCannotTakeIsAFailure) {
    MakeTool("tool");
    BuildOfTools();
    agent.MakeDetecting();
    // Nothing can be put in its place.
    agent.Root().Write("conf/osPresetProcess.dat/in-the-way", "");
    ExpectFailure(agent.Ctl({"preset", "apply", ListFile()}), 1,
                  "the agent did not take the preset list: download failed. [file:///");
    EXPECT_EQ(agent.Status()["lists"]["os_preset"].asInt(), 0);
}

TEST_F(PresetTest, AListThatIsNoneIsNotDelivered) {
    agent.MakeDetecting();
    const std::string large = agent.Work().Write("large", "");
    fs::resize_file(large, 10485761);
    ExpectFailure(agent.Ctl({"preset", "apply", large}), 1, "larger than agents load");
    ExpectFailure(agent.Ctl({"preset", "apply", agent.Work() / "none"}), 1, "No such file");
    ExpectFailure(agent.Ctl({"preset", "apply", agent.Work().Path()}), 1, "Is a directory");
    for (const char* text : {"", "{", "[]", R"({"process_info":7})", R"({"process_info":[{"sha256":"short"}]})"}) {
        ExpectFailure(agent.Ctl({"preset", "apply", agent.Work().Write("bad", text)}), 1, "/bad]");
    }
    EXPECT_EQ(agent.CountInLog("command [whitelist_10002]"), 0);
}

TEST_F(PresetTest, AnAgentThatHasNoPolicyYetTakesNoList) {
    MakeTool("tool");
    BuildOfTools();
    agent.Start();
    ExpectFailure(agent.Ctl({"preset", "apply", ListFile()}), 1, "the agent did not take the preset list: ");
}

TEST_F(PresetTest, WithoutADaemonAGoodListIsStatus69) {
    MakeTool("tool");
    BuildOfTools();
    ExpectFailure(agent.Ctl({"preset", "apply", ListFile()}), 69, "no daemon listens on [");
}

} // namespace
} // namespace SystemTest
