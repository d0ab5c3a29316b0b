#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/sdk/ChildProgram.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

using SDK::ExecuteCmdUtils;
using SDK::ProcessUtils;
using SDK::RunProgram;
using TestSupport::TempDir;
using TestSupport::WaitFor;

namespace {

constexpr std::size_t MAX_OUTPUT = 100000;

struct Result {
    int status;
    std::string output;
};

Result Execute(const std::string& command, std::size_t maxOutput = MAX_OUTPUT) {
    Result result{0, "before"};
    result.status = ExecuteCmdUtils::ExecuteCmd(command, result.output, maxOutput);
    return result;
}

bool HasEnded(int pid) {
    ProcessUtils::procStatus status;
    return ProcessUtils::GetProcessStatusInfo(pid, status) != 0 || status.state == "Z";
}

// The signals that a field of /proc/PID/status names, signal N as bit N - 1. Without the two that the
// C library keeps for itself (32 and 33): it has a program that it spawns ignore them.
unsigned long SignalsIn(const std::string& status, const std::string& field) {
    constexpr unsigned long OF_THE_C_LIBRARY = 0x180000000;
    const std::string::size_type position = status.find(field + ":\t");
    EXPECT_NE(position, std::string::npos) << status;
    return std::strtoul(status.c_str() + position + field.size() + 2, nullptr, 16) & ~OF_THE_C_LIBRARY;
}

// Makes a program of the test's own: a script that runs `body`.
std::string MakeScript(const TempDir& dir, const std::string& name, const std::string& body) {
    std::string path = dir.Write(name, "#!/bin/sh\n" + body + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0700));
    return path;
}

} // namespace

TEST(ExecuteCmd, GivesOutputAndExitStatus) {
    const Result result = Execute("echo one two");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "one two\n");
}

TEST(ExecuteCmd, PassesOnEveryExitStatus) {
    EXPECT_EQ(Execute("false").status, 1);
    EXPECT_EQ(Execute("sh -c 'exit 42'").status, 42);
    EXPECT_EQ(Execute("sh -c 'exit 255'").status, 255);
}

TEST(ExecuteCmd, TellsWhichSignalEndedTheProgram) {
    EXPECT_EQ(Execute("sh -c 'kill -TERM $$'").status, 128 + SIGTERM);
    EXPECT_EQ(Execute("sh -c 'kill -KILL $$'").status, 128 + SIGKILL);
}

TEST(ExecuteCmd, AProgramThatCannotBeStartedIs127) {
    const TempDir dir;
    EXPECT_EQ(Execute("corvalent-has-no-such-program").status, 127);
    EXPECT_EQ(Execute(dir.Path()).status, 127);
    EXPECT_EQ(Execute(dir.Write("not-executable", "#!/bin/sh\n")).status, 127);
    EXPECT_EQ(Execute("''").status, 127);
    EXPECT_EQ(Execute("").output, "");
}

TEST(ExecuteCmd, ATextWithoutInterpreterLineIsNotHandedToAShell) {
    const TempDir dir;
    const std::string path = dir.Write("script", "touch " + (dir / "made") + "\n");
    std::filesystem::permissions(path, std::filesystem::perms(0700));
    EXPECT_EQ(Execute(path).status, 127);
    EXPECT_EQ(dir.Read("made"), "<missing>");
}

TEST(ExecuteCmd, ACommandWithoutWordsOrWithAnOpenQuoteIsRefused) {
    for (const char* command : {"", "   ", "echo 'a", "echo \"a"}) {
        const Result result = Execute(command);
        EXPECT_EQ(result.status, -1) << command;
        EXPECT_EQ(result.output, "") << command;
    }
}

TEST(ExecuteCmd, HonoursQuotes) {
    EXPECT_EQ(Execute(R"(printf '[%s]' a 'b c' "d e" f\ g '')").output, "[a][b c][d e][f g][]");
}

TEST(ExecuteCmd, NothingHasTheMeaningThatShellsGiveIt) {
    const TempDir dir;
    const std::string made = dir / "made";
    const std::string text = "$HOME;touch " + made + "|touch " + made + "`touch " + made + "`$(touch " + made + ")&*?~";
    EXPECT_EQ(Execute("echo " + text + " >" + made + " && touch " + made).output,
              text + " >" + made + " && touch " + made + "\n");
    EXPECT_EQ(dir.Read("made"), "<missing>");
}

TEST(ExecuteCmd, APathWithQuotesBlanksAndSemicolonsReachesTheProgramWhole) {
    const TempDir dir;
    const std::string name = "a; rm -rf \"$x\" `y` | z";
    dir.Write(name, "content");
    EXPECT_EQ(Execute("cat '" + (dir / name) + "'").output, "content");
}

TEST(ExecuteCmd, KeepsNoMoreThanTheFirstBytesOfTheOutput) {
    const TempDir dir;
    EXPECT_EQ(Execute("echo 0123456789", 4).output, "0123");
    EXPECT_EQ(Execute("echo 0123456789", 0).output, "");
    const Result large = Execute("head -c 5000000 /dev/zero", 10);
    EXPECT_EQ(large.status, 0);
    EXPECT_EQ(large.output, std::string(10, '\0'));
}

TEST(ExecuteCmd, ReadsOutputLargerThanThePipe) {
    const Result result = Execute("head -c 3000000 /dev/zero", 5000000);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.size(), 3000000U);
}

TEST(ExecuteCmd, StandardInputIsEmptyAndStandardErrorIsDropped) {
    EXPECT_EQ(Execute("cat").output, "");
    EXPECT_EQ(Execute("sh -c 'echo lost >&2; echo kept'").output, "kept\n");
    EXPECT_EQ(Execute("readlink /proc/self/fd/0 /proc/self/fd/2").output, "/dev/null\n/dev/null\n");
}

TEST(ExecuteCmd, LooksTheProgramUpInPath) {
    const TempDir dir;
    MakeScript(dir, "corvalent-test-program", "echo found $1");
    setenv("PATH", (dir.Path() + ":/usr/bin:/bin").c_str(), 1);
    EXPECT_EQ(Execute("corvalent-test-program here").output, "found here\n");
}

TEST(ExecuteCmd, OnlyAbsoluteFoldersOfPathCount) {
    const TempDir dir;
    MakeScript(dir, "corvalent-test-program", "echo found");
    setenv("PATH", ".:tools::/usr/bin:/bin", 1);
    std::filesystem::current_path(dir.Path());
    EXPECT_EQ(Execute("corvalent-test-program").status, 127);
    EXPECT_EQ(Execute("./corvalent-test-program").output, "found\n");
    std::filesystem::current_path("/");
}

TEST(ExecuteCmd, PassesOnNoVariableButThePath) {
    setenv("LD_PRELOAD", "/no/such/library.so", 1);
    setenv("TMPDIR", "/no/such/folder", 1);
    setenv("PATH", "bin:/usr/bin::/bin", 1);
    EXPECT_EQ(Execute("env").output, "PATH=/usr/bin:/bin\nLC_ALL=C\n");
    unsetenv("LD_PRELOAD");
    unsetenv("TMPDIR");
}

TEST(ExecuteCmd, AProgramWritesNowhereButToTemporaryFiles) {
    const TempDir dir;
    char elsewhere[] = "/var/tmp/corvalent-test-XXXXXX";
    ASSERT_NE(mkdtemp(elsewhere), nullptr);
    const std::string kept = std::string(elsewhere) + "/kept";
    std::ofstream(kept) << "kept";
    std::filesystem::create_symlink(kept, dir / "link");
    for (const std::string& command : {"sh -c 'echo x > " + kept + "'", "cp /etc/hostname " + kept + ".new",
                                       "truncate -s 0 " + kept, "mv " + kept + " " + (dir / "moved"), "rm " + kept,
                                       "mkdir " + kept + ".folder", "sh -c 'echo x > " + (dir / "link") + "'"}) {
        EXPECT_NE(Execute(command).status, 0) << command;
    }
    EXPECT_EQ(TempDir::ReadText(kept), "kept");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(elsewhere), {}), 1);
    EXPECT_EQ(Execute("sh -c 'mkdir " + (dir / "a") + " && echo x > " + (dir / "a/b") + " && mv " + (dir / "a/b") +
                      " " + (dir / "c") + " && echo y > /dev/null'")
                  .status,
              0);
    EXPECT_EQ(dir.Read("c"), "x\n");
    // Only what the program does is confined.
    std::filesystem::remove_all(elsewhere);
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

namespace {

// A path that ExecuteCmd takes for a temporary file of this process; nothing is there before and after.
class TemporaryOfOurs : public testing::Test {
protected:
    TemporaryOfOurs() { std::filesystem::remove_all(path); }
    ~TemporaryOfOurs() override { std::filesystem::remove_all(path); }

    const std::string path = "/tmp/corvalent-test." + std::to_string(getpid());
    const TempDir dir;
};

} // namespace

TEST_F(TemporaryOfOurs, IsAnEmptyFileOfOursWhenTheProgramBegins) {
    EXPECT_EQ(Execute("stat -c '%F %a %u' " + path).output,
              "regular empty file 600 " + std::to_string(geteuid()) + "\n");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(Execute("sh -c 'echo kept > $0' " + path).status, 0);
    EXPECT_EQ(TempDir::ReadText(path), "kept\n");
}

TEST_F(TemporaryOfOurs, WhatSomebodyPutThereIsRemovedAndNotWrittenThrough) {
    const std::string victim = dir.Write("victim", "as it was");
    for (int kind = 0; kind < 3; ++kind) {
        if (kind == 0) {
            std::filesystem::create_symlink(victim, path);
        } else if (kind == 1) {
            std::filesystem::create_hard_link(victim, path);
        } else {
            ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
        }
        EXPECT_EQ(Execute("sh -c 'echo new > $0' " + path).status, 0) << kind;
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path))) << kind;
        EXPECT_EQ(TempDir::ReadText(path), "new\n") << kind;
        EXPECT_EQ(TempDir::ReadText(victim), "as it was") << kind;
        EXPECT_EQ(Execute("true " + path).status, 0) << kind;
        EXPECT_FALSE(std::filesystem::exists(path)) << kind;
    }
}

TEST_F(TemporaryOfOurs, WhereAFolderIsNoProgramRuns) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(Execute("touch " + path + " " + (dir / "made")).status, 127);
    EXPECT_EQ(dir.Read("made"), "<missing>");
    EXPECT_TRUE(std::filesystem::is_directory(path));
}

TEST_F(TemporaryOfOurs, NoOtherPathIsTakenForOne) {
    const std::string below = dir.Write("x." + std::to_string(getpid()), "kept");
    const std::string other = dir.Write("other", "kept");
    EXPECT_EQ(Execute("cat " + below + " " + other).output, "keptkept");
}

TEST(ExecuteCmd, PassesOnNoDescriptor) {
    const int inheritable = open("/dev/null", O_RDONLY); // NOLINT: without O_CLOEXEC on purpose
    ASSERT_GT(inheritable, 2);
    // ls itself opens the folder that it lists.
    EXPECT_EQ(Execute("ls /proc/self/fd").output, "0\n1\n2\n3\n");
    close(inheritable);
}

TEST(ExecuteCmd, PassesOnNoSignalSettings) {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    const std::string status = Execute("cat /proc/self/status").output;
    EXPECT_EQ(SignalsIn(status, "SigBlk"), 0U);
    EXPECT_EQ(SignalsIn(status, "SigIgn"), 0U);
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

TEST(ExecuteCmd, DoesNotWaitForWhatTheProgramLeavesInTheBackground) {
    const auto begin = std::chrono::steady_clock::now();
    const Result result = Execute("sh -c 'sleep 600 & echo $!'");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(result.status, 0);
    const int background = std::atoi(result.output.c_str());
    ASSERT_GT(background, 1);
    EXPECT_FALSE(HasEnded(background));
    kill(background, SIGKILL);
}

TEST(ExecuteCmd, WaitsForAProgramThatClosesItsOutputEarly) {
    const TempDir dir;
    const std::string made = dir / "made";
    EXPECT_EQ(Execute("sh -c 'exec >&-; sleep 0.3; echo x > " + made + "; exit 3'").status, 3);
    EXPECT_EQ(dir.Read("made"), "x\n");
}

TEST(ExecuteCmd, RunsOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 10; ++n) {
                const Result result = Execute("sh -c 'echo " + std::to_string(i) + "; exit " + std::to_string(i) + "'");
                EXPECT_EQ(result.status, i);
                EXPECT_EQ(result.output, std::to_string(i) + "\n");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(RunProgram, KillsAProgramThatRunsTooLong) {
    std::string output;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(RunProgram({"sh", "-c", "echo begun; exec sleep 600"}, output, MAX_OUTPUT, 500), 128 + SIGKILL);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

TEST(RunProgram, KillsTheWholeGroupOfAProgramThatRunsTooLong) {
    const TempDir dir;
    const std::string script = "sleep 600 & echo $! > " + (dir / "pid") + "; wait";
    std::string output;
    std::thread runner([&] { EXPECT_EQ(RunProgram({"sh", "-c", script}, output, MAX_OUTPUT, 3000), 128 + SIGKILL); });
    int grandchild = 0;
    EXPECT_TRUE(WaitFor([&] { return (grandchild = std::atoi(dir.Read("pid").c_str())) > 1; }));
    runner.join();
    EXPECT_TRUE(WaitFor([&] { return HasEnded(grandchild); }));
}

TEST(RunProgram, AProgramThatWritesWithoutEndIsKilledToo) {
    std::string output;
    EXPECT_EQ(RunProgram({"cat", "/dev/zero"}, output, 10, 300), 128 + SIGKILL);
    EXPECT_EQ(output, std::string(10, '\0'));
}

TEST(RunProgram, LeadsAProcessGroupOfItsOwn) {
    std::string output;
    EXPECT_EQ(RunProgram({"cat", "/proc/self/stat"}, output, MAX_OUTPUT, 30000), 0);
    const std::vector<std::string> fields = SDK::StrUtils::EasySplit(output, " ");
    ASSERT_GT(fields.size(), 5U);
    EXPECT_EQ(fields[0], fields[4]);
}

TEST(RunProgram, AnArgumentWithANulByteIsNotCutShort) {
    std::string output;
    EXPECT_EQ(RunProgram({"echo", std::string("a\0b", 3)}, output, MAX_OUTPUT, 30000), SDK::RUN_NOT_STARTED);
    EXPECT_EQ(RunProgram({}, output, MAX_OUTPUT, 30000), SDK::RUN_NOT_STARTED);
}

TEST(RunProgram, LeavesNoDescriptorAndNoZombieBehind) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = descriptors();
    std::string output;
    RunProgram({"true"}, output, MAX_OUTPUT, 30000);
    RunProgram({"corvalent-has-no-such-program"}, output, MAX_OUTPUT, 30000);
    RunProgram({"sleep", "600"}, output, MAX_OUTPUT, 50);
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
