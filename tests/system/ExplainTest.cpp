#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"
#include "system/PresetDelivery.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::ScopedProcess;

namespace fs = std::filesystem;

constexpr uid_t NOBODY = 65534;

Json::Value Explain(Agent& agent, const std::string& target) {
    const Result result = agent.Ctl({"explain", target, "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    return Parse(result.out);
}

Json::Value Explain(Agent& agent, int pid) {
    return Explain(agent, std::to_string(pid));
}

std::string OutcomeOf(const Json::Value& explanation) {
    const Json::Value& verdict = explanation["verdict"];
    std::string text = verdict["outcome"].asString();
    for (const char* key : {"list", "reason", "action"}) {
        const std::string detail = verdict[key].isNull() ? "none" : verdict[key].asString();
        text += detail == "none" ? "" : " " + detail;
    }
    return text;
}

std::string ReasonsOf(const Json::Value& explanation) {
    std::string reasons;
    for (const Json::Value& list : explanation["lists"]) {
        reasons += (reasons.empty() ? "" : " ") + list["reason"].asString();
    }
    return reasons;
}

// Everything of the agent's that an explanation must leave as it is, and of the test's programs.
std::map<std::string, std::string> Snapshot(const Agent& agent) {
    std::map<std::string, std::string> state;
    for (const auto& folder : {agent.Root() / "conf", agent.Work() / "programs"}) {
        for (const auto& file : fs::directory_iterator(folder)) {
            struct stat status {};
            EXPECT_EQ(lstat(file.path().c_str(), &status), 0);
            state[file.path()] = std::to_string(status.st_mode) + " " + std::to_string(status.st_ino) + " " +
                                 TestSupport::TempDir::ReadText(file.path());
        }
    }
    for (const char* list : {"local", "server", "os", "service"}) {
        state[std::string("list ") + list] = agent.Trust(list).toStyledString();
    }
    for (const char* type : {"whitelist_2", "whitelist_3", "whitelist_4", "whitelist_5"}) {
        state[std::string("reports ") + type] = std::to_string(agent.Reports(type).size());
    }
    return state;
}

// Explains all of them, twice for people and for programs, and expects no trace of it.
void ExpectNoTrace(Agent& agent, const std::vector<std::string>& targets) {
    const std::map<std::string, std::string> before = Snapshot(agent);
    for (const std::string& target : targets) {
        EXPECT_EQ(agent.Ctl({"explain", target}).status, 0) << target;
        EXPECT_EQ(agent.Ctl({"explain", target, "--json"}).status, 0) << target;
    }
    EXPECT_EQ(Snapshot(agent), before);
}

TEST(ExplainTest, EachListThatVouchesIsNamedAndTheOthersSayWhyTheyDoNot) {
    Agent agent;
    WebServer server;
    const std::string learned = agent.MakeProgram("learned");
    const std::string sent = agent.MakeProgram("sent");
    const std::string packaged = agent.MakeProgram("packaged");
    const std::string service = agent.MakeProgram("service");
    agent.MakeDetecting({.programs = {learned}}, {});
    ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(sent)})).status, 0);
    SendPreset(agent, server, "whitelist_10002", packaged);
    SendPreset(agent, server, "whitelist_10003", service);

    EXPECT_EQ(OutcomeOf(Explain(agent, learned)), "trusted local");
    EXPECT_EQ(OutcomeOf(Explain(agent, sent)), "trusted server");
    EXPECT_EQ(OutcomeOf(Explain(agent, packaged)), "trusted os");
    EXPECT_EQ(OutcomeOf(Explain(agent, service)), "trusted service");
    EXPECT_EQ(ReasonsOf(Explain(agent, service)), "unknown_path unknown_name unknown_digest vouched_for");
    EXPECT_EQ(Explain(agent, learned)["lists"][0]["entry"], MakeEntry(learned));

    const Result text = agent.Ctl({"explain", packaged});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.err, "");
    EXPECT_THAT(text.out, StartsWith("file         " + packaged + "\n"));
    EXPECT_THAT(text.out, HasSubstr("\nsha256       " + Sha256Of(packaged) + "\n"));
    EXPECT_THAT(text.out, HasSubstr("\nmode         3 (detecting)\n"));
    EXPECT_THAT(text.out, HasSubstr("\nlocal           no       unknown: no entry for this path\n"));
    EXPECT_THAT(text.out, HasSubstr("\nOS preset       yes      vouched for by " + packaged + ", debian 12, sha256 " +
                                    Sha256Of(packaged) + "\n"));
    EXPECT_THAT(text.out, HasSubstr("\nin detection  trusted: the OS preset list vouches for it\n"));
}

TEST(ExplainTest, AKnownPathWithAnotherContentIsToldFromAnUnknownFile) {
    Agent agent;
    const std::string tool = agent.MakeProgram("tool");
    const std::string unknown = agent.MakeProgram("unknown");
    agent.MakeDetecting({.programs = {tool}}, {});
    const std::string learnedDigest = Sha256Of(tool);
    fs::copy_file(unknown, tool, fs::copy_options::overwrite_existing);

    const Json::Value changed = Explain(agent, tool);
    EXPECT_EQ(OutcomeOf(changed), "untrusted report");
    EXPECT_EQ(changed["lists"][0]["reason"], "other_digest");
    EXPECT_EQ(changed["lists"][0]["entry"]["hash"], learnedDigest);
    EXPECT_EQ(Explain(agent, unknown)["lists"][0]["reason"], "unknown_path");
    EXPECT_THAT(agent.Ctl({"explain", tool}).out,
                HasSubstr("known, with another digest: " + tool + ", sha256 " + learnedDigest + ", type 1\n"));
}

TEST(ExplainTest, AProcessIsExplainedAsDetectionHasJudgedIt) {
    Agent agent;
    const std::string known = agent.MakeProgram("known");
    agent.MakeDetecting({.programs = {known}}, {});
    const ScopedProcess trusted(agent.Scope().Path(), {known, "60"});
    const ScopedProcess stranger(agent.Scope().Path(), {agent.MakeProgram("stranger"), "60"});
    const Json::Value alert = agent.WaitForAlert(stranger.Pid());

    const Json::Value explanation = Explain(agent, stranger.Pid());
    EXPECT_EQ(OutcomeOf(explanation), "untrusted report");
    EXPECT_EQ(explanation["image"], alert["process_info"]["process_path"]);
    EXPECT_EQ(explanation["digest"], alert["process_info"]["process_hash"]);
    EXPECT_EQ(explanation["size"].asInt64(), alert["process_info"]["file_size"].asInt64());
    EXPECT_EQ(explanation["in_scope"], true);
    EXPECT_EQ(OutcomeOf(Explain(agent, trusted.Pid())), "trusted local");
    EXPECT_THAT(agent.Ctl({"explain", std::to_string(stranger.Pid())}).out,
                HasSubstr("untrusted: reported only: the policy does not ask for blocking\n"));
}

TEST(ExplainTest, OfAScriptTheInterpreterIsJudged) {
    Agent agent;
    const std::string shell = fs::canonical("/bin/sh").string();
    const std::string script = agent.Work().Write("programs/script", "#!/bin/sh\nread -r line\n");
    fs::permissions(script, fs::perms::owner_all);
    agent.MakeDetecting({.programs = {shell}}, {});
    int input[2];
    ASSERT_EQ(pipe(input), 0);
    const ScopedProcess process(agent.Scope().Path(), {script}, input[0]);
    agent.DrainEvents();

    for (const Json::Value& explanation : {Explain(agent, script), Explain(agent, process.Pid())}) {
        EXPECT_EQ(OutcomeOf(explanation), "trusted local");
        EXPECT_EQ(explanation["image"], shell);
        EXPECT_EQ(explanation["digest"], Sha256Of(shell));
        EXPECT_EQ(explanation["interpreter"], true);
        EXPECT_EQ(explanation["script"]["path"], script);
        EXPECT_EQ(explanation["script"]["digest"], Sha256Of(script));
        EXPECT_EQ(explanation["kind"], "script");
    }
    EXPECT_THAT(agent.Ctl({"explain", script}).out,
                HasSubstr("\nnote          global detection judges the image of the interpreter, not the script"));
    close(input[0]);
    close(input[1]);
}

TEST(ExplainTest, WhatDetectionLetsGoIsSaidWithTheReason) {
    Agent agent;
    const std::string hidden = agent.MakeProgram("hidden");
    fs::permissions(hidden, fs::perms(0711));
    ASSERT_EQ(chown(hidden.c_str(), NOBODY, NOBODY), 0);
    agent.SetLauncher({"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search"});
    agent.MakeDetecting();
    const ScopedProcess unreadable(agent.Scope().Path(), {hidden, "60"});
    agent.DrainEvents();

    EXPECT_EQ(agent.AlertsOf(unreadable.Pid()).size(), 0U);
    EXPECT_EQ(OutcomeOf(Explain(agent, unreadable.Pid())), "let_go unreadable");
    EXPECT_EQ(ReasonsOf(Explain(agent, unreadable.Pid())), "not_asked not_asked not_asked not_asked");
    EXPECT_THAT(agent.Ctl({"explain", std::to_string(unreadable.Pid())}).out,
                HasSubstr("let go: its image cannot be read, and detection fails open\n"));
    const Json::Value outside = Explain(agent, getpid());
    EXPECT_EQ(OutcomeOf(outside), "not_judged out_of_scope");
    EXPECT_EQ(outside["in_scope"], false);
    EXPECT_THAT(agent.Ctl({"explain", std::to_string(getpid())}).out,
                HasSubstr("not judged: it is outside the agent's scope\n"));
}

TEST(ExplainTest, TheAgentItselfIsLetGo) {
    Agent agent;
    agent.Start();
    agent.Scope().Add(agent.GetPid());
    EXPECT_EQ(OutcomeOf(Explain(agent, agent.GetPid())), "let_go own_process");
    EXPECT_THAT(agent.Ctl({"explain", std::to_string(agent.GetPid())}).out,
                HasSubstr("let go: a process of the agent's own\n"));
}

TEST(ExplainTest, WhatBlockingWouldDoIsSaidAndNotDone) {
    Agent agent;
    const std::string unknown = agent.MakeProgram("unknown");
    agent.MakeDetecting({.entries = 50}, {.block = true});
    Json::Value explanation = Explain(agent, unknown);
    EXPECT_EQ(OutcomeOf(explanation), "untrusted report");
    EXPECT_EQ(explanation["blocking"]["entries"].asInt(), 50);
    EXPECT_EQ(explanation["blocking"]["in_force"], false);
    EXPECT_THAT(agent.Ctl({"explain", unknown}).out,
                HasSubstr("reported only: the lists hold 50 entries, and nothing is blocked up to 50\n"));

    ScopedProcess running(agent.Scope().Path(), {unknown, "60"});
    agent.WaitForAlert(running.Pid());
    ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry("/usr/bin/true")})).status, 0);
    explanation = Explain(agent, running.Pid());
    EXPECT_EQ(OutcomeOf(explanation), "untrusted kill");
    EXPECT_EQ(explanation["blocking"]["entries"].asInt(), 51);
    EXPECT_THAT(agent.Ctl({"explain", unknown}).out, HasSubstr("untrusted: reported and killed\n"));
    EXPECT_FALSE(running.HasEnded());
    ExpectNoTrace(agent, {unknown, std::to_string(running.Pid())});
    EXPECT_FALSE(running.HasEnded());
}

TEST(ExplainTest, AnExplanationLeavesListsHistoryAndFilesAsTheyAre) {
    Agent agent;
    WebServer server;
    const std::string sent = agent.MakeProgram("sent");
    const std::string packaged = agent.MakeProgram("packaged");
    const std::string unknown = agent.MakeProgram("unknown");
    agent.MakeDetecting();
    ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(sent)})).status, 0);
    SendPreset(agent, server, "whitelist_10002", packaged);
    const ScopedProcess process(agent.Scope().Path(), {unknown, "60"});
    agent.WaitForAlert(process.Pid());

    ExpectNoTrace(agent, {sent, packaged, unknown, std::to_string(process.Pid()), std::to_string(getpid())});
}

TEST(ExplainTest, InDirectoryModeNothingIsAdoptedByAnExplanation) {
    Agent agent;
    const std::string sent = agent.MakeReader("sent");
    const std::string file = agent.Work().Write("watched/key", "secret");
    agent.MakeDetecting({}, {.block = true, .dirs = {agent.Work() / "watched"}});
    ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(sent)})).status, 0);
    ScopedProcess idle(agent.Scope().Path(), {agent.MakeProgram("idle"), "60"});

    const Json::Value explanation = Explain(agent, sent);
    EXPECT_EQ(OutcomeOf(explanation), "trusted server");
    EXPECT_EQ(explanation["directory_mode"], true);
    EXPECT_EQ(explanation["judged"]["type"].asInt(), 1);
    EXPECT_EQ(OutcomeOf(Explain(agent, idle.Pid())), "untrusted kill");
    ExpectNoTrace(agent, {sent, std::to_string(idle.Pid())});
    EXPECT_FALSE(idle.HasEnded());
    EXPECT_THAT(agent.Ctl({"explain", sent}).out, HasSubstr("\nnote          detection would adopt it"));
}

TEST(ExplainTest, AFileIsFoundAsTheKernelWouldNameIt) {
    Agent agent;
    agent.Start();
    const std::string tool = agent.MakeProgram("123");
    fs::create_symlink("123", agent.Work() / "programs/link");
    fs::current_path(agent.Work() / "programs");
    for (const char* name : {"./123", "link", "../programs/./link"}) {
        EXPECT_EQ(Explain(agent, name)["image"], tool) << name;
    }
    const std::string odd = agent.MakeProgram("odd \n\x1b[31m name");
    EXPECT_EQ(Explain(agent, odd)["image"], odd);
    EXPECT_THAT(agent.Ctl({"explain", odd}).out, HasSubstr("/odd \\n\\x1b[31m name\n"));
    fs::current_path("/");
}

TEST(ExplainTest, WhatCannotBeExplainedIsOneLineAndStatusOne) {
    Agent agent;
    agent.Start();
    const std::string memory = "/proc/" + std::to_string(getpid()) + "/mem";
    const std::string script = agent.Work().Write("script", "#!/no/such/interpreter\n");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"5000000", "there is no process 5000000"},
        {"0", "there is no process 0"},
        {"99999999999999999999", "[99999999999999999999] is no process id"},
        {"/no/such/file", "cannot find [/no/such/file]: No such file or directory"},
        {"-1", "cannot find [-1]: No such file or directory"},
        {"/usr", "[/usr] is a directory"},
        {"/dev/null", "[/dev/null] is not a regular file"},
        {memory, "cannot read [" + memory + "]: Input/output error"},
        {script, "the interpreter of the script [" + script +
                     "]: cannot find [/no/such/interpreter]: No such file or directory"},
    };
    for (const auto& [target, reason] : cases) {
        const Result result = agent.Ctl({"explain", target});
        EXPECT_EQ(result.status, 1) << target;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "corvalentctl: " + reason + "\n");
    }
    EXPECT_EQ(agent.Ctl({"explain"}).status, 2);
    EXPECT_EQ(agent.Ctl({"explain", "1", "2"}).status, 2);
    EXPECT_EQ(agent.Ctl({"explain", "1", "--jsn"}).status, 2);
}

// ---- What was seen and not blocked -----------------------------------------------------------------

TEST(SeenProgramsTest, EachProgramSeenInDetectionIsCountedOnce) {
    Agent agent;
    agent.MakeDetecting();
    const std::string twice = agent.MakeProgram("twice");
    const ScopedProcess one(agent.Scope().Path(), {twice, "60"});
    const ScopedProcess two(agent.Scope().Path(), {twice, "60"});
    agent.WaitForAlert(one.Pid());
    agent.WaitForAlert(two.Pid());

    const Result json = agent.Ctl({"alerts", "--summary", "--json"});
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.err, "");
    const Json::Value program = Parse(json.out.substr(0, json.out.find('\n')));
    EXPECT_EQ(program["path"], twice);
    EXPECT_EQ(program["hash"], Sha256Of(twice));
    EXPECT_EQ(program["count"].asInt(), 2);
    EXPECT_LE(program["first_seen"].asInt64(), program["last_seen"].asInt64());
    EXPECT_EQ(program["users"].size(), 1U);
    EXPECT_EQ(program["users"][0], "0");

    EXPECT_THAT(agent.Ctl({"alerts", "--summary"}).out,
                ContainsRegex("\n2 +[0-9: -]+  0 +" + Sha256Of(twice) + "  " + twice + "\n"));
    EXPECT_EQ(agent.Ctl({"alerts", "--summary", "--json", "--since", "4102444800"}).out, "");
    EXPECT_EQ(agent.Ctl({"alerts", "--summary", "--follow"}).status, 2);
}

TEST(SeenProgramsTest, WhatWasBlockedIsNotInTheSummary) {
    Agent agent;
    agent.MakeDetecting({}, {.block = true});
    const std::string blocked = agent.MakeProgram("blocked");
    const ScopedProcess process(agent.Scope().Path(), {blocked, "60"});
    ASSERT_EQ(agent.WaitForAlert(process.Pid())["process_info"]["block"].asInt(), 1);
    EXPECT_EQ(agent.Ctl({"alerts", "--summary", "--json"}).out, "");
}

// ---- The log ---------------------------------------------------------------------------------------

TEST(AlertLogTest, EveryAlertIsOneLineThatNobodyCanForge) {
    Agent agent;
    agent.MakeDetecting();
    const std::string plain = agent.MakeProgram("plain");
    const ScopedProcess one(agent.Scope().Path(), {plain, "60"});
    const Json::Value alert = agent.WaitForAlert(one.Pid());
    EXPECT_EQ(agent.CountInLog("ALERT untrusted program " + plain + " pid " + std::to_string(one.Pid()) +
                               " user 0 sha256 " + Sha256Of(plain) + " not blocked event " +
                               alert["event_id"].asString() + " cmdline " + plain + " 60\n"),
              1);

    const std::string evil = agent.MakeProgram("x\nALERT untrusted program \x1b[2J\xff");
    const ScopedProcess two(agent.Scope().Path(), {evil, "60"});
    agent.WaitForAlert(two.Pid());
    EXPECT_EQ(agent.CountInLog("\nALERT"), 0);
    EXPECT_EQ(agent.CountInLog("\x1b"), 0);
    EXPECT_EQ(agent.CountInLog("\xff"), 0);
    EXPECT_EQ(agent.CountInLog(" ALERT untrusted program \"" + agent.Work().Path() +
                               "/programs/x\\nALERT untrusted program \\x1b[2J\\xff\" pid " +
                               std::to_string(two.Pid()) + " "),
              1);
    agent.DrainEvents();
}

} // namespace
} // namespace SystemTest
