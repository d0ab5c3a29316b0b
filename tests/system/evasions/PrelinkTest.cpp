#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/PresetDelivery.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;

namespace fs = std::filesystem;

constexpr unsigned NOBODY = 65534;

// A folder of the test's own that is not below /tmp.
class FolderElsewhere {
public:
    FolderElsewhere() {
        if (mkdtemp(mPath.data()) == nullptr) {
            throw std::runtime_error("no folder " + mPath);
        }
    }
    ~FolderElsewhere() {
        std::error_code ignored;
        fs::remove_all(mPath, ignored);
    }
    FolderElsewhere(const FolderElsewhere&) = delete;
    FolderElsewhere& operator=(const FolderElsewhere&) = delete;

    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath = "/var/tmp/corvalent-test-XXXXXX";
};

std::vector<std::string> SplitAtNul(const std::string& text) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

// An agent that detects and blocks, and finds the test's stand-in for prelink where it looks for it: in PATH.
class PrelinkEvasion : public testing::Test {
protected:
    PrelinkEvasion() {
        fs::create_directories(agent.Work() / "tools");
        agent.SetLauncher({"/usr/bin/env", "PATH=tools:" + agent.Work() / "tools:/usr/bin:/bin", "TMPDIR=/no/such",
                           "SHELLOPTS=xtrace"});
    }
    ~PrelinkEvasion() override {
        // What a test had somebody else leave in /tmp.
        for (const std::string& name : planted) {
            fs::remove_all(name);
        }
    }

    void Detect() { agent.MakeDetecting({}, {.block = true}); }

    // The stand-in keeps its words and its environment, then runs `body`.
    void InstallPrelink(const std::string& body) const {
        const std::string program = agent.Work().Write(
            "tools/prelink", "#!/bin/bash\nprintf '%s\\0' \"$@\" > '" + agent.Work() / "asked" +
                                 "'\ncat /proc/$$/environ > '" + agent.Work() / "environment" + "'\n" + body + "\n");
        fs::permissions(program, fs::perms(0755));
    }

    // What the stand-in was asked the last time.
    std::vector<std::string> Asked() const {
        return fs::exists(agent.Work() / "asked") ? SplitAtNul(agent.Work().Read("asked")) : std::vector<std::string>();
    }

    // A program that nobody knows, with the mark that prelink leaves behind.
    std::string MakeMarked(const std::string& name) const {
        std::string path = agent.MakeProgram(name);
        std::string image = TestSupport::TempDir::ReadText(path);
        Elf64_Ehdr header{};
        std::memcpy(&header, image.data(), sizeof(header));
        const std::uint32_t libraryList = SHT_GNU_LIBLIST;
        std::memcpy(image.data() + header.e_shoff + sizeof(Elf64_Shdr) + offsetof(Elf64_Shdr, sh_type), &libraryList,
                    sizeof(libraryList));
        return agent.Work().Write("programs/" + name, image);
    }

    std::unique_ptr<ScopedProcess> Start(const std::string& program) const {
        return std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{program, "60"});
    }

    void ExpectLetGo(const std::string& program) {
        const auto process = Start(program);
        agent.DrainEvents();
        EXPECT_TRUE(agent.AlertsOf(process->Pid()).empty()) << program;
        EXPECT_FALSE(process->HasEnded()) << program;
    }

    void ExpectKilled(const std::string& program) const {
        const auto process = Start(program);
        EXPECT_TRUE(process->Wait(DEADLINE)) << program;
        EXPECT_TRUE(process->WasKilled()) << program;
        EXPECT_EQ(agent.WaitForAlert(process->Pid())["process_info"]["process_path"].asString(), program);
    }

    // The name that the agent has the original of a program of that name written to.
    std::string TemporaryFor(const std::string& name) {
        planted.push_back("/tmp/" + name + "." + std::to_string(agent.GetPid()));
        return planted.back();
    }

    Agent agent;
    std::vector<std::string> planted;
    // Writes to every file that it is told to.
    static constexpr const char* OBEY = R"(while [ $# -gt 0 ]; do [ "$1" = -o ] && echo original > "$2"; shift; done)";
};

// ---- the mark

TEST_F(PrelinkEvasion, AForgedMarkIsLetGoAndTheLogAndExplainSaySo) {
    Detect();
    const std::string program = MakeMarked("forged");
    ExpectLetGo(program);
    EXPECT_EQ(agent.CountInLog("Get file [forged] hash failed"), 1);
    EXPECT_EQ(agent.CountInLog("Revert prelinked process hash failed"), 1);
    EXPECT_THAT(agent.Ctl({"explain", program}).out,
                HasSubstr("let go: it is prelinked and the original cannot be had, and detection fails open\n"));

    // As of a prelink that finds nothing to undo.
    InstallPrelink("exit 1");
    ExpectLetGo(MakeMarked("forged-too"));
    EXPECT_EQ(agent.CountInLog("Revert prelinked process hash failed"), 3);
}

TEST_F(PrelinkEvasion, AMarkedImageIsJudgedByItsOriginalWherePrelinkHasOne) {
    InstallPrelink(OBEY);
    Detect();
    ExpectKilled(MakeMarked("prelinked"));
    EXPECT_THAT(Asked(), ElementsAre("-u", agent.Work() / "programs/prelinked", "-o", TemporaryFor("prelinked")));
    EXPECT_FALSE(fs::exists(planted.front()));
    // Nothing of the agent's own environment but the absolute folders of its PATH.
    EXPECT_THAT(SplitAtNul(agent.Work().Read("environment")),
                ElementsAre("PATH=" + agent.Work() / "tools:/usr/bin:/bin", "LC_ALL=C"));
}

// ---- the command line

TEST_F(PrelinkEvasion, ANameIsOneWordWhateverAShellWouldMakeOfIt) {
    InstallPrelink(OBEY);
    Detect();
    const std::string made = agent.Work() / "made";
    const std::vector<std::string> names = {"$(touch made)", "a;touch made",     "`touch made`",     "-a",
                                            "--all -o made", "line\ntouch made", "\"double\" \\ \\", "a > made & b",
                                            "\xff\x1b[2J"};
    for (const std::string& name : names) {
        const std::string program = MakeMarked(name);
        ExpectKilled(program);
        EXPECT_THAT(Asked(), ElementsAre("-u", program, "-o", TemporaryFor(name))) << name;
    }
    EXPECT_FALSE(fs::exists(made));
}

TEST_F(PrelinkEvasion, AQuoteInANameAddsWordsButNothingIsWrittenOutsideOfTmp) {
    const FolderElsewhere elsewhere;
    const std::string victim = elsewhere / "victim";
    std::ofstream(victim) << "as it was";
    InstallPrelink(OBEY + std::string("\necho x > '") + elsewhere / "made" + "'");
    Detect();
    const std::string begin = agent.Work() / "programs/x";
    const std::string program = MakeMarked("x' -o '" + victim);
    ExpectKilled(program);
    EXPECT_THAT(Asked(), ElementsAre("-u", begin, "-o", victim, "-o", TemporaryFor("victim")));
    EXPECT_EQ(TestSupport::TempDir::ReadText(victim), "as it was");
    EXPECT_FALSE(fs::exists(elsewhere / "made"));
}

TEST_F(PrelinkEvasion, AnOpenQuoteInANameMakesNoCommandAndTheImageIsLetGo) {
    InstallPrelink(OBEY);
    Detect();
    ExpectLetGo(MakeMarked("folder'/it's'"));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(agent.CountInLog("Revert prelinked process hash failed"), 1);
}

// ---- the temporary file, whose name anybody can tell beforehand

TEST_F(PrelinkEvasion, ALinkPlantedInItsPlaceIsNotWrittenThrough) {
    const FolderElsewhere elsewhere;
    const std::string outside = elsewhere / "victim";
    std::ofstream(outside) << "as it was";
    const std::string inside = agent.Work().Write("victim", "as it was");
    InstallPrelink(OBEY);
    Detect();
    fs::create_symlink(outside, TemporaryFor("one"));
    fs::create_symlink(inside, TemporaryFor("two"));
    fs::create_hard_link(inside, TemporaryFor("three"));
    for (const char* name : {"one", "two", "three"}) {
        ExpectKilled(MakeMarked(name));
    }
    EXPECT_EQ(TestSupport::TempDir::ReadText(outside), "as it was");
    EXPECT_EQ(TestSupport::TempDir::ReadText(inside), "as it was");
}

TEST_F(PrelinkEvasion, AFilePlantedInItsPlaceIsNotTakenForTheOriginal) {
    WebServer server;
    InstallPrelink("exit 1");
    Detect();
    const std::string trusted = agent.MakeProgram("trusted");
    SendPreset(agent, server, "whitelist_10002", trusted);
    const auto plant = [&](const std::string& name) {
        const std::string path = TemporaryFor(name);
        fs::copy_file(trusted, path);
        EXPECT_EQ(chown(path.c_str(), NOBODY, NOBODY), 0);
        fs::permissions(path, fs::perms(0666));
    };
    plant("silent");
    ExpectLetGo(MakeMarked("silent"));
    EXPECT_EQ(agent.CountInLog("Revert prelinked process hash failed"), 1);
    EXPECT_FALSE(fs::exists(planted.back()));

    InstallPrelink(OBEY);
    plant("undone");
    ExpectKilled(MakeMarked("undone"));
    EXPECT_FALSE(fs::exists(planted.back()));
}

TEST_F(PrelinkEvasion, AFolderOrFifoPlantedInItsPlaceHoldsNobodyUp) {
    InstallPrelink(OBEY);
    Detect();
    fs::create_directory(TemporaryFor("folder"));
    ExpectLetGo(MakeMarked("folder"));
    EXPECT_THAT(Asked(), IsEmpty());
    EXPECT_EQ(agent.CountInLog("Revert prelinked process hash failed"), 1);

    ASSERT_EQ(mkfifo(TemporaryFor("fifo").c_str(), 0666), 0);
    ExpectKilled(MakeMarked("fifo"));
}

} // namespace
} // namespace SystemTest
