#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/PresetDelivery.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// Waits for a minute, for nothing.
const std::string STAY = "read -rt 60 <> <(:)";

class ScriptEvasion : public testing::Test {
protected:
    using Process = std::unique_ptr<ScopedProcess>;

    Process Start(const std::vector<std::string>& words, int input = -1) const {
        return std::make_unique<ScopedProcess>(agent.Scope().Path(), words, input);
    }

    // An executable script in the folder "scripts".
    std::string MakeScript(const std::string& name, const std::string& firstLine, const std::string& text) const {
        std::string path = agent.Work().Write("scripts/" + name, firstLine + "\n" + text + "\n");
        fs::permissions(path, fs::perms(0755));
        return path;
    }

    static SDK::FileDescriptor OpenInput(const std::string& path) {
        return SDK::FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }

    // The shell's bytes at another path.
    std::string CopyShell(const std::string& name) const {
        std::string path = agent.Work() / name;
        fs::copy_file(bash, path);
        return path;
    }

    Agent agent;
    const std::string bash = fs::canonical("/bin/bash").string();
};

// ---- global mode: the interpreter is judged

using GlobalScript = ScriptEvasion;

TEST_F(GlobalScript, WhateverATrustedInterpreterIsToldRuns) {
    agent.MakeDetecting({.programs = {bash}}, {.block = true});
    const std::string script = MakeScript("plain", "#!" + bash, STAY);
    const SDK::FileDescriptor input = OpenInput(script);
    std::vector<Process> processes;
    processes.push_back(Start({script}));
    processes.push_back(Start({bash, script}));
    processes.push_back(Start({bash, "-c", STAY}));
    processes.push_back(Start({bash}, input.Get()));
    processes.push_back(Start({MakeScript("options", "#!" + bash + " -ue", STAY)}));
    processes.push_back(Start({MakeScript("with blanks in its name", "#!" + bash, STAY)}));
    agent.DrainEvents();
    for (const Process& process : processes) {
        EXPECT_TRUE(agent.AlertsOf(process->Pid()).empty());
        EXPECT_FALSE(process->HasEnded());
    }
}

TEST_F(GlobalScript, NothingIsRunByAnInterpreterThatNobodyKnows) {
    agent.MakeDetecting({}, {.block = true});
    const std::string copy = CopyShell("interpreter");
    const std::string script = MakeScript("script", "#!" + copy + " -ue", STAY);
    const SDK::FileDescriptor input = OpenInput(script);
    const auto expectKilled = [&](const std::vector<std::string>& words, int standardInput) {
        // After the first one it was made not executable.
        fs::permissions(copy, fs::perms(0755));
        const Process process = Start(words, standardInput);
        EXPECT_TRUE(process->Wait(DEADLINE));
        EXPECT_TRUE(process->WasKilled());
        EXPECT_EQ(agent.WaitForAlert(process->Pid())["process_info"]["process_path"].asString(), copy);
        // What it leaves behind is done before the next one begins.
        agent.DrainEvents();
    };
    expectKilled({script}, -1);
    expectKilled({copy, "-c", STAY}, -1);
    expectKilled({copy}, input.Get());
}

TEST_F(GlobalScript, AnInterpreterUnderAnotherNameIsAnotherProgramUnlessItsDigestAloneIsTrusted) {
    agent.MakeDetecting({.programs = {bash}}, {.block = true});
    const std::string copy = CopyShell("tool");
    const Process unknown = Start({copy, "-c", STAY});
    EXPECT_TRUE(unknown->Wait(DEADLINE));
    EXPECT_TRUE(unknown->WasKilled());
    agent.DrainEvents();

    WebServer server;
    SendPreset(agent, server, "whitelist_10002", bash);
    fs::permissions(copy, fs::perms(0755));
    const Process vouched = Start({copy, "-c", STAY});
    agent.DrainEvents();
    EXPECT_TRUE(agent.AlertsOf(vouched->Pid()).empty());
    EXPECT_FALSE(vouched->HasEnded());
}

// ---- directory mode: the script is judged, where it can be told

class DirectoryScript : public ScriptEvasion {
protected:
    // Trusted are the shell and one script.
    DirectoryScript() {
        PolicyOptions options;
        options.dirs = {agent.Work() / "watched"};
        agent.MakeDetecting({.programs = {bash, learned}}, options);
        agent.WaitForMarks(1);
    }

    // Returns once the process has the watched file open, and that has been judged.
    void AwaitVerdict(const Process& process) {
        const std::string link = "/proc/" + std::to_string(process->Pid()) + "/fd/9";
        ASSERT_TRUE(WaitFor([&] { return fs::exists(fs::symlink_status(link)); }));
        const ScopedProcess last(agent.Scope().Path(),
                                 {agent.MakeReader("reader-" + std::to_string(++counter)), "-f", watched});
        agent.WaitForAlert(last.Pid());
    }

    void ExpectReportedAs(const Process& process, const std::string& path) {
        AwaitVerdict(process);
        const std::vector<Json::Value> alerts = agent.AlertsOf(process->Pid());
        ASSERT_FALSE(alerts.empty()) << path;
        EXPECT_EQ(alerts.front()["process_info"]["process_path"].asString(), path);
    }

    void ExpectTrusted(const Process& process) {
        AwaitVerdict(process);
        EXPECT_THAT(agent.AlertsOf(process->Pid()), testing::IsEmpty());
    }

    const std::string watched = agent.Work().Write("watched/file", "content");
    const std::string work = "exec 9<" + watched + "; " + STAY;
    const std::string learned = MakeScript("learned", "#!" + bash, work);
    int counter = 0;
};

TEST_F(DirectoryScript, AnUnknownScriptIsReportedHoweverItIsStarted) {
    const std::string script = MakeScript("script", "#!" + bash, work);
    const std::string withOptions = MakeScript("options", "#!" + bash + " -ue", work);
    ExpectReportedAs(Start({script}), script);
    ExpectReportedAs(Start({bash, "-x", script}), script);
    ExpectReportedAs(Start({withOptions}), withOptions);
    ExpectTrusted(Start({learned}));
}

TEST_F(DirectoryScript, WhatIsNoFileOnTheCommandLineIsJudgedAsTheInterpreter) {
    const std::string script = MakeScript("script", "#!" + bash, work);
    const SDK::FileDescriptor input = OpenInput(script);
    ExpectTrusted(Start({bash, "-c", work}));
    ExpectTrusted(Start({bash}, input.Get()));
    ExpectTrusted(Start({MakeScript("with blanks in its name", "#!" + bash, work)}));
}

TEST_F(DirectoryScript, ATrustedScriptsNameAmongTheArgumentsVouchesForAnother) {
    ExpectTrusted(Start({bash, "-c", work, learned}));
}

TEST_F(DirectoryScript, ATrustedScriptThatWasChangedIsReported) {
    MakeScript("learned", "#!" + bash, "true; " + work);
    ExpectReportedAs(Start({learned}), learned);
}

TEST_F(DirectoryScript, AnInterpreterUnderAnotherNameIsNoneAndItsScriptIsNotSeen) {
    const std::string copy = CopyShell("tool");
    const std::string script = MakeScript("script", "#!" + copy, work);
    ExpectReportedAs(Start({script}), copy);

    WebServer server;
    SendPreset(agent, server, "whitelist_10002", bash);
    ExpectTrusted(Start({script}));
}

} // namespace
} // namespace SystemTest
