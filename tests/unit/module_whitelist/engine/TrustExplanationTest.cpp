#include "TrustExplanation.h"

#include <cstddef>
#include <cstring>
#include <filesystem>

#include <elf.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "WhitelistInspector.h"
#include "framework/Scope.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

using TestSupport::ForeignProcess;

constexpr auto EXECUTABLE_ONLY = std::filesystem::perms(0711);

// The thread has the rights to files of a user who owns none, as root has on a file system that refuses it.
class WithoutFileRights {
public:
    WithoutFileRights() { setfsuid(OWNER_OF_NOTHING); }
    ~WithoutFileRights() { setfsuid(0); }
    WithoutFileRights(const WithoutFileRights&) = delete;
    WithoutFileRights& operator=(const WithoutFileRights&) = delete;

private:
    static constexpr uid_t OWNER_OF_NOTHING = 65534;
};

class TrustExplanationTest : public TrustEngineTest {
protected:
    TrustExplanationTest() : program(CopyProgram("/bin/sleep", "tool")), digest(DigestOfFile(program)) {
        EXPECT_TRUE(HasNote(Engine::ExplainFile(program), "the lists are not loaded"));
        engine.Onstart();
        EXPECT_FALSE(HasNote(Engine::ExplainFile(program), "the lists are not loaded"));
        Configure(Engine::MOD_DETECT);
        log.Clear();
    }

    // The explanation of a process, which has to agree with the decision.
    Json::Value Explain(int pid) const {
        const Json::Value explanation = Engine::ExplainProcess(pid);
        EXPECT_EQ(engine.ProcessVerify(pid), Outcome(explanation) != "untrusted") << explanation.toStyledString();
        return explanation;
    }
    Json::Value ExplainFile(const std::string& path) const { return Engine::ExplainFile(path); }

    static std::string Outcome(const Json::Value& explanation) { return explanation["verdict"]["outcome"].asString(); }
    static std::string Reason(const Json::Value& explanation) { return explanation["verdict"]["reason"].asString(); }

    // The reasons of the four lists, "local server os service".
    static std::string Reasons(const Json::Value& explanation) {
        std::string reasons;
        for (const Json::Value& list : explanation["lists"]) {
            reasons += (reasons.empty() ? "" : " ") + list["reason"].asString();
        }
        return reasons;
    }

    static bool HasNote(const Json::Value& explanation, const std::string& part) {
        for (const Json::Value& note : explanation["notes"]) {
            if (note.asString().find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    // Marks the program as prelink leaves its files behind.
    void Prelink() const {
        std::string image = TestSupport::TempDir::ReadText(program);
        Elf64_Ehdr header{};
        std::memcpy(&header, image.data(), sizeof(header));
        const std::uint32_t libraryList = 0x6ffffff7;
        image.replace(header.e_shoff + sizeof(Elf64_Shdr) + offsetof(Elf64_Shdr, sh_type), sizeof(libraryList),
                      std::string(reinterpret_cast<const char*>(&libraryList), sizeof(libraryList)));
        root.Write("programs/tool", image);
        chmod(program.c_str(), 0755);
    }

    // Has "prelink -u FILE -o TEMP" do what a shell line does.
    void InstallPrelink(const std::string& line) const {
        const std::string path = root.Write("tools/prelink", "#!/bin/sh\n" + line + "\n");
        chmod(path.c_str(), 0755);
        setenv("PATH", (root / "tools:/usr/bin:/bin").c_str(), 1);
    }

    const std::string program;
    const std::string digest;
};

} // namespace

// ---- Global mode -----------------------------------------------------------------------------------

TEST_F(TrustExplanationTest, AnUnknownProgramIsUnknownToEachListInItsOwnWay) {
    const ForeignProcess process({.words = {program, "1000"}});
    const Json::Value explanation = Explain(process.Pid());
    EXPECT_EQ(Outcome(explanation), "untrusted");
    EXPECT_EQ(explanation["verdict"]["action"], "report");
    EXPECT_EQ(explanation["verdict"]["list"], "none");
    EXPECT_EQ(Reasons(explanation), "unknown_path unknown_name unknown_digest unknown_digest");
    EXPECT_EQ(explanation["pid"], process.Pid());
    EXPECT_TRUE(explanation["file"].isNull());
    EXPECT_EQ(explanation["image"], program);
    EXPECT_EQ(explanation["name"], "tool");
    EXPECT_EQ(explanation["digest"], digest);
    EXPECT_EQ(explanation["size"].asInt64(), static_cast<std::int64_t>(std::filesystem::file_size(program)));
    EXPECT_EQ(explanation["prelinked"], false);
    EXPECT_EQ(explanation["interpreter"], false);
    EXPECT_TRUE(explanation["script"].isNull());
    EXPECT_EQ(explanation["type"], 1);
    EXPECT_EQ(explanation["kind"], "image");
    EXPECT_EQ(explanation["mode_name"], "detecting");
    EXPECT_EQ(explanation["directory_mode"], false);
    EXPECT_EQ(explanation["in_scope"], true);
    EXPECT_EQ(explanation["judged"]["path"], program);
    EXPECT_EQ(explanation["judged"]["hash"], digest);
}

TEST_F(TrustExplanationTest, TheFirstListThatVouchesDecidesAndEachSaysWhy) {
    engine.UpdateLocalProcessInfo(Record(program, "other"));
    SyncServer(List({Entry("/opt/tool", "old", 1)}));
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(digest, "tool", "Debian", "12")})));
    ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List({PresetEntry("older", program)})));
    const ForeignProcess process({.words = {program, "1000"}});
    Json::Value explanation = Explain(process.Pid());
    EXPECT_EQ(Outcome(explanation), "trusted");
    EXPECT_EQ(explanation["verdict"]["list"], "os");
    EXPECT_EQ(explanation["verdict"]["action"], "none");
    EXPECT_EQ(Reasons(explanation), "other_digest other_digest vouched_for other_digest");
    EXPECT_EQ(explanation["lists"][0]["entry"]["hash"], "other");
    EXPECT_EQ(explanation["lists"][1]["entry"]["path"], "/opt/tool");
    EXPECT_EQ(explanation["lists"][2]["entry"], Parse(PresetEntry(digest, "tool", "Debian", "12")));
    EXPECT_EQ(explanation["lists"][3]["entry"]["sha256"], "older");

    SyncServer(List({Entry("/opt/tool", digest, 1)}));
    EXPECT_EQ(Explain(process.Pid())["verdict"]["list"], "server");
}

TEST_F(TrustExplanationTest, AFileIsExplainedLikeAProcessOfIt) {
    const ForeignProcess process({.words = {program, "1000"}});
    Json::Value ofProcess = Explain(process.Pid());
    Json::Value ofFile = ExplainFile(program);
    EXPECT_EQ(ofFile["file"], program);
    EXPECT_TRUE(ofFile["pid"].isNull());
    EXPECT_TRUE(ofFile["in_scope"].isNull());
    for (const char* own : {"pid", "file", "in_scope"}) {
        ofProcess.removeMember(own);
        ofFile.removeMember(own);
    }
    EXPECT_EQ(ofFile, ofProcess);
}

TEST_F(TrustExplanationTest, OfAScriptTheInterpreterIsJudged) {
    const std::string bash = CopyProgram("/bin/bash", "bash");
    const std::string script = root.Write("script.sh", "#!" + bash + " -e\necho ready; read -r line\n");
    chmod(script.c_str(), 0755);
    engine.UpdateLocalProcessInfo(Record(script, DigestOfFile(script), 2));
    const ForeignProcess process({.words = {script}});
    ASSERT_TRUE(process.AwaitLine());
    for (const Json::Value& explanation : {Explain(process.Pid()), ExplainFile(script)}) {
        EXPECT_EQ(Outcome(explanation), "untrusted");
        EXPECT_EQ(explanation["image"], bash);
        EXPECT_EQ(explanation["digest"], DigestOfFile(bash));
        EXPECT_EQ(explanation["interpreter"], true);
        EXPECT_EQ(explanation["script"]["path"], script);
        EXPECT_EQ(explanation["script"]["digest"], DigestOfFile(script));
        EXPECT_EQ(explanation["kind"], "script");
        EXPECT_EQ(explanation["type"], 2);
        EXPECT_EQ(explanation["judged"]["path"], bash);
        EXPECT_TRUE(HasNote(explanation, "judges the image of the interpreter"));
    }
    engine.UpdateLocalProcessInfo(Record(bash, DigestOfFile(bash)));
    EXPECT_EQ(Outcome(Explain(process.Pid())), "trusted");
}

TEST_F(TrustExplanationTest, AScriptOfAProgramThatIsNoKnownInterpreterIsToldApart) {
    const std::string script = root.Write("script", "#! " + program + "\t1000\n");
    const Json::Value explanation = ExplainFile(script);
    EXPECT_EQ(explanation["image"], program);
    EXPECT_EQ(explanation["interpreter"], false);
    EXPECT_EQ(explanation["script"]["path"], script);
    EXPECT_EQ(explanation["kind"], "image");
    EXPECT_TRUE(HasNote(explanation, "not known as an interpreter"));
}

TEST_F(TrustExplanationTest, WhatIsNoProgramIsSaidToBeNone) {
    const Json::Value explanation = ExplainFile(root.Write("text", "no program"));
    EXPECT_EQ(explanation["digest"], Digest("no program"));
    EXPECT_TRUE(HasNote(explanation, "starts no process by itself"));
    EXPECT_FALSE(HasNote(ExplainFile(program), "starts no process by itself"));
}

TEST_F(TrustExplanationTest, APrelinkedProgramIsLookedUpByItsOriginal) {
    InstallPrelink(R"(printf original > "$4")");
    Prelink();
    const ForeignProcess process({.words = {program, "1000"}});
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry(Digest("original"))})));
    const Json::Value explanation = Explain(process.Pid());
    EXPECT_EQ(explanation["prelinked"], true);
    EXPECT_EQ(explanation["digest"], Digest("original"));
    EXPECT_EQ(explanation["verdict"]["list"], "os");
    EXPECT_FALSE(std::filesystem::exists("/tmp/tool." + std::to_string(getpid())));
}

TEST_F(TrustExplanationTest, APrelinkedProgramWithoutItsOriginalIsLetGo) {
    InstallPrelink("exit 1");
    Prelink();
    const ForeignProcess process({.words = {program, "1000"}});
    for (const Json::Value& explanation : {Explain(process.Pid()), ExplainFile(program)}) {
        EXPECT_EQ(Outcome(explanation), "let_go");
        EXPECT_EQ(Reason(explanation), "prelink_not_undone");
        EXPECT_EQ(Reasons(explanation), "not_asked not_asked not_asked not_asked");
        EXPECT_TRUE(explanation["digest"].isNull());
    }
}

TEST_F(TrustExplanationTest, AnImageThatCannotBeReadIsLetGo) {
    const ForeignProcess process({.words = {program, "1000"}});
    std::filesystem::permissions(program, EXECUTABLE_ONLY);
    const WithoutFileRights refused;
    const Json::Value explanation = Explain(process.Pid());
    EXPECT_EQ(Outcome(explanation), "let_go");
    EXPECT_EQ(Reason(explanation), "unreadable");
    EXPECT_EQ(explanation["image"], program);
    EXPECT_TRUE(explanation["size"].isNull());
}

TEST_F(TrustExplanationTest, AnImageThatWasReplacedAfterItsStartIsExplainedByWhatRuns) {
    const ForeignProcess process({.words = {program, "1000"}});
    engine.UpdateLocalProcessInfo(Record(program, digest));
    std::filesystem::rename(root.Write("other", "another file"), program);
    const Json::Value explanation = Explain(process.Pid());
    EXPECT_EQ(Outcome(explanation), "trusted");
    EXPECT_EQ(explanation["image"], program);
    EXPECT_EQ(explanation["digest"], digest);
}

TEST_F(TrustExplanationTest, TheAgentsOwnProcessesAreLetGo) {
    const Json::Value explanation = Explain(getpid());
    EXPECT_EQ(Outcome(explanation), "let_go");
    EXPECT_EQ(Reason(explanation), "own_process");
    EXPECT_TRUE(explanation["digest"].isString());
}

TEST_F(TrustExplanationTest, AProcessWithoutAnImageIsLetGo) {
    // One that has ended and has not been reaped.
    const pid_t pid = fork();
    if (pid == 0) {
        _exit(0);
    }
    siginfo_t ended{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    const Json::Value explanation = Explain(pid);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(Outcome(explanation), "let_go");
    EXPECT_EQ(Reason(explanation), "no_image");
    EXPECT_EQ(Reasons(explanation), "not_asked not_asked not_asked not_asked");
    EXPECT_TRUE(explanation["image"].isNull());
    EXPECT_TRUE(explanation["kind"].isNull());
}

TEST_F(TrustExplanationTest, AProcessOutsideTheScopeIsNotJudged) {
    const ForeignProcess process({.words = {program, "1000"}});
    Framework::Scope::SetCgroup("/corvalent-no-such-group");
    const Json::Value explanation = Engine::ExplainProcess(process.Pid());
    Framework::Scope::SetCgroup("");
    EXPECT_EQ(Outcome(explanation), "not_judged");
    EXPECT_EQ(Reason(explanation), "out_of_scope");
    EXPECT_EQ(explanation["in_scope"], false);
}

TEST_F(TrustExplanationTest, NothingIsKilledUpToTheBlockingFloor) {
    Configure(Engine::MOD_DETECT, false, true);
    for (const auto& [entries, action] : {std::pair(50, "report"), std::pair(51, "kill")}) {
        ASSERT_TRUE(ParseLocal(List(FillerEntries(entries, "local"))));
        const Json::Value explanation = ExplainFile(program);
        EXPECT_EQ(explanation["verdict"]["action"], action);
        EXPECT_EQ(explanation["blocking"]["entries"].asInt(), entries);
        EXPECT_EQ(explanation["blocking"]["floor"].asInt(), 50);
        EXPECT_EQ(explanation["blocking"]["policy"], true);
        EXPECT_EQ(explanation["blocking"]["in_force"], entries > 50);
    }
}

TEST_F(TrustExplanationTest, TheStatusSaysTheSameOfBlocking) {
    Configure(Engine::MOD_DETECT, false, true);
    ASSERT_TRUE(ParseLocal(List(FillerEntries(49, "local"))));
    SyncServer(List({Entry("/opt/tool", "one", 1), Entry("/opt/tool", "another", 1)}));
    const Json::Value status = Engine::WhitelistInspector().Ask(Parse(R"({"query":"status"})"));
    EXPECT_EQ(status["lists"]["server"].asInt(), 2);
    EXPECT_EQ(status["blocking"]["entries"].asInt(), 50);
    EXPECT_EQ(status["blocking"], ExplainFile(program)["blocking"]);
}

TEST_F(TrustExplanationTest, WhatWasLearnedButIsNotInTheListYetIsSaid) {
    Configure(Engine::MOD_LEARN);
    const ForeignProcess process({.words = {program, "1000"}});
    constexpr unsigned int EXEC = 1;
    engine.OnProcessNotify(EXEC, process.Pid(), 1);
    const Json::Value explanation = Engine::ExplainProcess(process.Pid());
    EXPECT_EQ(explanation["mode_name"], "learning");
    EXPECT_EQ(Reasons(explanation).substr(0, 12), "unknown_path");
    EXPECT_TRUE(HasNote(explanation, "full_proc_task"));
}

// ---- Directory mode --------------------------------------------------------------------------------

namespace {

class DirectoryExplanationTest : public TrustExplanationTest {
protected:
    DirectoryExplanationTest() { Configure(Engine::MOD_DETECT, true, true); }
};

} // namespace

TEST_F(DirectoryExplanationTest, ARecordIsMatchedByItsKindToo) {
    SyncServer(List({Entry("/opt/tool", digest, 1, 2)}));
    engine.UpdateLocalProcessInfo(Record(program, digest, 2));
    Json::Value explanation = ExplainFile(program);
    EXPECT_EQ(Outcome(explanation), "untrusted");
    EXPECT_EQ(explanation["verdict"]["action"], "kill");
    EXPECT_EQ(explanation["blocking"]["floor"].asInt(), 0);
    EXPECT_EQ(Reasons(explanation), "other_kind other_kind unknown_digest unknown_digest");
    EXPECT_EQ(explanation["judged"]["type"], 1);
    EXPECT_TRUE(HasNote(explanation, "when it opens or changes a watched file"));

    SyncServer(List({Entry("/opt/tool", digest, 1)}));
    explanation = ExplainFile(program);
    EXPECT_EQ(explanation["verdict"]["list"], "server");
    EXPECT_TRUE(HasNote(explanation, "would adopt it"));
}

TEST_F(DirectoryExplanationTest, AScriptIsJudgedByItsOwnContent) {
    const std::string bash = CopyProgram("/bin/bash", "bash");
    const std::string script = root.Write("script.sh", "#!" + bash + "\necho ready; read -r line\n");
    chmod(script.c_str(), 0755);
    const ForeignProcess process({.words = {script}});
    ASSERT_TRUE(process.AwaitLine());
    engine.UpdateLocalProcessInfo(Record(script, DigestOfFile(script)));
    for (const Json::Value& explanation : {Engine::ExplainProcess(process.Pid()), ExplainFile(script)}) {
        EXPECT_EQ(explanation["verdict"]["list"], "local");
        EXPECT_EQ(explanation["judged"]["path"], script);
        EXPECT_EQ(explanation["judged"]["hash"], DigestOfFile(script));
        EXPECT_EQ(explanation["image"], bash);
        EXPECT_EQ(explanation["kind"], "script");
    }
}

TEST_F(DirectoryExplanationTest, WhatTheTableKnowsOfAProcessCounts) {
    const ForeignProcess process({.words = {program, "1000"}});
    ProcessInfo row = Record(program, "as it was", 0);
    row.pid = process.Pid();
    engine.AddToAllProcessMap(row);
    EXPECT_EQ(Engine::ExplainProcess(process.Pid())["judged"]["hash"], "as it was");
    row.trusted = true;
    engine.AddToAllProcessMap(row);
    EXPECT_EQ(Reason(Engine::ExplainProcess(process.Pid())), "trusted_at_start");
    row = ProcessInfo(process.Pid());
    row.path = program;
    engine.AddToAllProcessMap(row);
    EXPECT_EQ(Engine::ExplainProcess(process.Pid())["judged"]["hash"], digest);
}

TEST_F(DirectoryExplanationTest, AnImageThatCannotBeReadIsNotTrusted) {
    const ForeignProcess process({.words = {program, "1000"}});
    engine.UpdateLocalProcessInfo(Record(program, digest));
    std::filesystem::permissions(program, EXECUTABLE_ONLY);
    const WithoutFileRights refused;
    const Json::Value explanation = Engine::ExplainProcess(process.Pid());
    EXPECT_EQ(Outcome(explanation), "untrusted");
    EXPECT_EQ(explanation["lists"][0]["reason"], "other_digest");
}

TEST_F(DirectoryExplanationTest, APrelinkedImageCountsAsItIs) {
    Prelink();
    const Json::Value explanation = ExplainFile(program);
    EXPECT_EQ(explanation["prelinked"], true);
    EXPECT_EQ(explanation["digest"], DigestOfFile(program));
}

TEST_F(DirectoryExplanationTest, TheAgentItselfIsLetGo) {
    EXPECT_EQ(Reason(Engine::ExplainProcess(getpid())), "own_process");
}

// ---- In every mode ---------------------------------------------------------------------------------

TEST_F(TrustExplanationTest, AnExplanationLeavesNoTrace) {
    SyncServer(List({Entry("/opt/tool", digest, 1)}));
    const ForeignProcess process({.words = {program, "1000"}});
    const std::string before = root.Read("conf/whitelist.data");
    for (const bool directoryMode : {false, true}) {
        Configure(Engine::MOD_DETECT, directoryMode, true);
        EXPECT_EQ(Outcome(Engine::ExplainProcess(process.Pid())), "trusted");
        EXPECT_EQ(Outcome(ExplainFile(program)), "trusted");
        EXPECT_EQ(engine.CountLocalTrust(), 0U);
        EXPECT_FALSE(engine.FindProcess(process.Pid()));
        EXPECT_TRUE(agent.Reports().Reports().empty());
        EXPECT_EQ(root.Read("conf/whitelist.data"), before);
    }
}

TEST_F(TrustExplanationTest, WhatCannotBeExplainedIsSaidInOneLine) {
    const auto errorOf = [](const Json::Value& answer) { return answer["error"].asString(); };
    ASSERT_EQ(mkfifo((root / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(errorOf(Engine::ExplainProcess(NOBODY)), "there is no process 5000000");
    EXPECT_EQ(errorOf(Engine::ExplainProcess(0)), "there is no process 0");
    EXPECT_EQ(errorOf(Engine::ExplainProcess(-1)), "there is no process -1");
    EXPECT_EQ(errorOf(Engine::ExplainProcess(std::int64_t{1} << 32)), "there is no process 4294967296");
    EXPECT_EQ(errorOf(ExplainFile("")), "[] is not an absolute path");
    EXPECT_EQ(errorOf(ExplainFile("tool")), "[tool] is not an absolute path");
    EXPECT_EQ(errorOf(ExplainFile("/no/such")), "cannot find [/no/such]: No such file or directory");
    EXPECT_EQ(errorOf(ExplainFile("/usr")), "[/usr] is a directory");
    EXPECT_EQ(errorOf(ExplainFile(root / "fifo")), "[" + (root / "fifo") + "] is not a regular file");
    const std::string memory = "/proc/" + std::to_string(getpid()) + "/mem";
    EXPECT_EQ(errorOf(ExplainFile(memory)), "cannot read [" + memory + "]: Input/output error");
    const std::string script = root.Write("script", "#!/no/such interpreter\n");
    EXPECT_EQ(errorOf(ExplainFile(script)),
              "the interpreter of the script [" + script + "]: cannot find [/no/such]: No such file or directory");
}

TEST_F(TrustExplanationTest, TheInspectorExplainsFilesAndProcesses) {
    Engine::WhitelistInspector inspector;
    EXPECT_EQ(inspector.Ask(Parse(R"({"query":"explain","path":")" + program + "\"}")), ExplainFile(program));
    EXPECT_EQ(inspector.Ask(Parse(R"({"query":"explain","pid":)" + std::to_string(NOBODY) + "}"))["error"],
              "there is no process 5000000");
    EXPECT_EQ(inspector.Ask(Parse(R"({"query":"explain"})"))["error"], "[] is not an absolute path");
}

} // namespace EngineTest
