#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ChildProcess.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ChildProcess;
using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

// A name that somebody chose who wants to be misunderstood, and how it is shown on a screen and in the log.
struct HostileName {
    std::string name;
    std::string shown;
};

const std::vector<HostileName>& HostileNames() {
    static const std::vector<HostileName> names = {
        {R"(q"u`o$(te)\)", R"(q"u`o$(te)\\)"},
        {R"(x","process_pid":1,"block":1,"y":")", R"(x","process_pid":1,"block":1,"y":")"},
        {"line\n2026-01-01T00:00:00.000Z Warning data_comm x:1 ALERT forged\rback",
         R"(line\n2026-01-01T00:00:00.000Z Warning data_comm x:1 ALERT forged\rback)"},
        {"\x1b[2J\x1b]0;title\x07 \x01\x7f", R"(\x1b[2J\x1b]0;title\x07 \x01\x7f)"},
        {"c1 \xc2\x9b"
         "31m \xe2\x80\xae"
         "txt \xe2\x80\xa8",
         R"(c1 \xc2\x9b31m \xe2\x80\xaetxt \xe2\x80\xa8)"},
        {"bytes \xff\xfe \xed\xb3\xbf \xc3", R"(bytes \xff\xfe \xed\xb3\xbf \xc3)"},
        {R"(escaped \udcff \n %s %n)", R"(escaped \\udcff \\n %s %n)"},
        {"-rf --json", "-rf --json"},
    };
    return names;
}

std::string ToHex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x",
                      static_cast<unsigned int>(static_cast<unsigned char>(byte)));
        text += digits.data();
    }
    return text;
}

class NameEvasion : public testing::Test {
protected:
    // What check_texts.py finds in the text; the test fails when it is not of that form.
    std::string Check(const std::string& form, const std::string& text) {
        const std::string name = "check-" + std::to_string(++counter);
        Program check({"/usr/bin/python3", CHECK_TEXTS, form, agent.Work().Write(name, text)}, agent.Work() / name);
        EXPECT_TRUE(check.WaitForEnd(DEADLINE));
        EXPECT_EQ(check.GetStatus(), 0) << form << " " << check.GetErrors();
        return check.GetOutput();
    }

    // What the operator's program prints for people, which a terminal may be shown.
    std::string Screen(const std::vector<std::string>& words) {
        const Result result = agent.Ctl(words);
        EXPECT_EQ(result.status, 0) << result.err;
        Check("screen", result.out);
        return result.out;
    }

    // The names, in hexadecimal, that a stranger reads in what it prints for programs.
    std::string NamesIn(const std::vector<std::string>& words) {
        const Result result = agent.Ctl(words);
        EXPECT_EQ(result.status, 0) << result.err;
        return Check("json", result.out);
    }

    std::unique_ptr<ScopedProcess> Start(const std::vector<std::string>& words) const {
        return std::make_unique<ScopedProcess>(agent.Scope().Path(), words);
    }

    bool IsLearned(const std::string& program) const {
        const Json::Value entries = agent.Trust("local");
        return std::any_of(entries.begin(), entries.end(),
                           [&](const Json::Value& entry) { return entry["path"].asString() == program; });
    }

    Agent agent;
    int counter = 0;
};

TEST_F(NameEvasion, NoNameForgesARecordAnAlertOrAScreenAndEachIsRecoverable) {
    agent.MakeDetecting();
    std::vector<std::unique_ptr<ScopedProcess>> processes;
    for (const HostileName& hostile : HostileNames()) {
        const std::string program = agent.MakeProgram(hostile.name);
        processes.push_back(Start({program, "60"}));
        EXPECT_EQ(agent.WaitForAlert(processes.back()->Pid())["process_info"]["process_path"].asString(), program);
        EXPECT_THAT(agent.Ctl({"explain", std::to_string(processes.back()->Pid())}).out,
                    HasSubstr("/programs/" + hostile.shown + "\n"));
    }
    const std::string alerts = Screen({"alerts"});
    const std::string summary = Screen({"alerts", "--summary"});
    const std::string names = NamesIn({"alerts", "--json"});
    const std::string summed = NamesIn({"alerts", "--summary", "--json"});
    for (const HostileName& hostile : HostileNames()) {
        const std::string program = agent.Work() / ("programs/" + hostile.name);
        EXPECT_THAT(alerts, HasSubstr("/programs/" + hostile.shown + "\n"));
        EXPECT_THAT(summary, HasSubstr("/programs/" + hostile.shown + "\n"));
        EXPECT_THAT(names, HasSubstr(ToHex(program) + "\n")) << hostile.shown;
        EXPECT_THAT(summed, HasSubstr(ToHex(program) + "\n")) << hostile.shown;
    }
    Check("log", agent.Root().Read("log/corvalent.log"));
    EXPECT_EQ(agent.CountInLog(" ALERT untrusted program "), static_cast<int>(agent.Alerts().size()));
}

TEST_F(NameEvasion, NoCommandLineForgesARecordAnAlertOrAScreenAndEachIsRecoverable) {
    const std::string shell = agent.Work() / "shell";
    fs::copy_file("/bin/bash", shell);
    agent.MakeDetecting();
    std::vector<std::string> words = {shell, "-c", "read -rt 60 <> <(:)"};
    std::string joined = shell + " -c read -rt 60 <> <(:)";
    std::string shown = joined;
    for (const HostileName& hostile : HostileNames()) {
        words.push_back(hostile.name);
        joined += " " + hostile.name;
        shown += " " + hostile.shown;
    }
    const auto process = Start(words);
    EXPECT_EQ(agent.WaitForAlert(process->Pid())["process_info"]["process_cmdline"].asString(), joined);
    EXPECT_THAT(NamesIn({"alerts", "--json"}), HasSubstr(ToHex(joined) + "\n"));
    Screen({"alerts"});
    Screen({"explain", std::to_string(process->Pid())});
    Check("log", agent.Root().Read("log/corvalent.log"));
    EXPECT_EQ(agent.CountInLog(" cmdline " + shown), 1);
}

TEST_F(NameEvasion, ANameThatWasLearnedIsStillTrustedAfterARestart) {
    agent.Start();
    agent.ApplyAndWatch({});
    std::vector<std::string> programs;
    std::vector<std::unique_ptr<ScopedProcess>> processes;
    for (const HostileName& hostile : HostileNames()) {
        programs.push_back(agent.MakeProgram(hostile.name));
        processes.push_back(Start({programs.back(), "60"}));
    }
    for (const std::string& program : programs) {
        EXPECT_TRUE(WaitFor([&] { return IsLearned(program); })) << program;
    }
    const std::string listed = NamesIn({"trust", "list", "--json"});
    agent.Stop();
    const std::string kept = Check("json", agent.Root().Read("conf/whitelist.data"));
    for (const std::string& program : programs) {
        EXPECT_THAT(listed, HasSubstr(ToHex(program) + "\n")) << program;
        EXPECT_THAT(kept, HasSubstr(ToHex(program) + "\n")) << program;
    }

    processes.clear();
    constexpr int ALL_MINUTES = 43200;
    agent.WriteState(ALL_MINUTES, LEARNED);
    agent.StartWatching();
    ASSERT_TRUE(WaitFor([&] { return agent.Status()["lists"]["local"].asInt() > 0; }));
    ASSERT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    for (const std::string& program : programs) {
        processes.push_back(Start({program, "60"}));
    }
    agent.DrainEvents();
    for (const auto& process : processes) {
        EXPECT_TRUE(agent.AlertsOf(process->Pid()).empty());
    }
    Screen({"trust", "list"});
}

TEST_F(NameEvasion, AListWithSuchNamesGoesToAFileAndBack) {
    std::vector<std::string> programs;
    for (const HostileName& hostile : HostileNames()) {
        programs.push_back(agent.MakeProgram(hostile.name));
    }
    agent.MakeDetecting({.programs = programs}, {});
    const std::string file = agent.Work() / "exported";
    ASSERT_EQ(agent.Ctl({"trust", "export", "--list", "local", "-o", file}).status, 0);
    Check("json", agent.Work().Read("exported"));
    const Result imported = agent.Ctl({"trust", "import", file});
    ASSERT_EQ(imported.status, 0) << imported.err;
    const std::string names = NamesIn({"trust", "list", "--list", "server", "--json"});
    for (const std::string& program : programs) {
        EXPECT_THAT(names, HasSubstr(ToHex(program) + "\n")) << program;
    }
}

// ---- the longest paths

// Folders in folders below `top`, so deep that the path of the last one has that many bytes, of which JSON has
// to escape the most. The last one is the test's working folder while this lives.
class DeepFolder {
public:
    DeepFolder(const std::string& top, std::size_t pathBytes) : mTop(top) {
        constexpr std::size_t MAX_NAME_BYTES = 255;
        EXPECT_EQ(chdir(top.c_str()), 0);
        for (std::size_t left = pathBytes - top.size(); left > 0;) {
            std::size_t name = std::min(left - 1, MAX_NAME_BYTES);
            // What is left then has to be a slash and a name.
            name -= left - 1 - name == 1 ? 1 : 0;
            const std::string folder(name, '\xfe');
            EXPECT_EQ(mkdir(folder.c_str(), 0755), 0);
            EXPECT_EQ(chdir(folder.c_str()), 0);
            left -= 1 + name;
        }
    }
    ~DeepFolder() {
        EXPECT_EQ(chdir("/"), 0);
        std::error_code ignored;
        fs::remove_all(mTop, ignored);
    }
    DeepFolder(const DeepFolder&) = delete;
    DeepFolder& operator=(const DeepFolder&) = delete;

private:
    const std::string mTop;
};

class LongPath : public NameEvasion {
protected:
    LongPath() { agent.MakeDetecting({}, {.block = true}); }

    // Starts the program with a path of that many bytes, its folder made for it.
    ChildProcess StartAtDepth(std::size_t pathBytes) {
        static const std::string NAME = "/evil";
        folder = std::make_unique<DeepFolder>(agent.Work() / "programs", pathBytes - NAME.size());
        EXPECT_EQ(rename(program.c_str(), "evil"), 0);
        return ChildProcess::SpawnIn(agent.Scope(), {"./evil", "60"});
    }

    const std::string program = agent.MakeProgram("evil");
    const std::string digest = Sha256Of(program);
    std::unique_ptr<DeepFolder> folder;
};

TEST_F(LongPath, OneOf4095BytesIsReportedWhole) {
    constexpr std::size_t LONGEST = 4095;
    ChildProcess process = StartAtDepth(LONGEST);
    const Json::Value alert = agent.WaitForAlert(process.Pid())["process_info"];
    const std::string path = alert["process_path"].asString();
    EXPECT_EQ(path.size(), LONGEST);
    EXPECT_TRUE(path.ends_with("\xfe/evil"));
    EXPECT_EQ(alert["process_hash"].asString(), digest);
    EXPECT_EQ(alert["block"].asInt(), 1);
    EXPECT_EQ(process.Wait(), SIGKILL);
    EXPECT_THAT(NamesIn({"alerts", "--json"}), HasSubstr(ToHex(path) + "\n"));
    EXPECT_THAT(NamesIn({"explain", "--json", "./evil"}), HasSubstr(ToHex(path)));
    Check("log", agent.Root().Read("log/corvalent.log"));
}

TEST_F(LongPath, OneThatNoPathLeadsToIsJudgedByItsContent) {
    constexpr std::size_t TOO_LONG = 9000;
    ChildProcess process = StartAtDepth(TOO_LONG);
    const Json::Value alert = agent.WaitForAlert(process.Pid())["process_info"];
    EXPECT_EQ(alert["process_path"].asString(), "/proc/" + std::to_string(process.Pid()) + "/exe");
    EXPECT_EQ(alert["process_hash"].asString(), digest);
    EXPECT_EQ(alert["block"].asInt(), 1);
    EXPECT_EQ(process.Wait(), SIGKILL);
}

} // namespace
} // namespace SystemTest
