#include "agent/daemon/Daemon.h"

#include <csignal>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ServiceManager.h"
#include "support/LoopbackListener.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

// Whose standard error it is.
enum class Stream { FILE, JOURNAL };

// In the child: says of its standard error what systemd says of a stream to journald.
void PassForJournal() {
    struct stat info {};
    fstat(STDERR_FILENO, &info);
    setenv("JOURNAL_STREAM", (std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino)).c_str(), 1);
}

// The daemon as a process of its own; what it writes to standard error is in a file.
class Process {
public:
    Process(const std::vector<std::string>& arguments, const std::string& errorFile, Stream stream = Stream::FILE) {
        std::vector<char*> words = {const_cast<char*>(CORVALENTD)};
        for (const std::string& argument : arguments) {
            words.push_back(const_cast<char*>(argument.c_str()));
        }
        words.push_back(nullptr);
        // What an earlier one said must not be taken for this one's.
        fs::remove(errorFile);
        mPid = fork();
        if (mPid == 0) {
            const int fd = open(errorFile.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
            dup2(fd, STDERR_FILENO);
            dup2(fd, STDOUT_FILENO);
            if (stream == Stream::JOURNAL) {
                PassForJournal();
            }
            execv(CORVALENTD, words.data());
            _exit(126);
        }
        if (mPid < 0) {
            throw std::runtime_error("cannot fork");
        }
    }
    ~Process() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void Signal(int signal) const { kill(mPid, signal); }

    // The exit status; -1 when it has not ended within the deadline or was killed by a signal.
    int Wait() {
        int status = 0;
        if (!TestSupport::WaitFor([&] { return waitpid(mPid, &status, WNOHANG) == mPid; })) {
            return -1;
        }
        mPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t GetPid() const { return mPid; }

private:
    pid_t mPid = -1;
};

class DaemonProcessTest : public testing::Test {
protected:
    DaemonProcessTest() {
        fs::create_directory(root / "module");
        fs::create_symlink(DATA_COMM_MODULE, root / "module/libdata_comm_module.so");
    }

    // An end before the daemon is ready: its status, and what it said.
    int RunToTheEnd(const std::vector<std::string>& arguments) {
        const int status = Process(arguments, errors).Wait();
        said = TestSupport::TempDir::ReadText(errors);
        return status;
    }
    int RunToTheEnd() { return RunToTheEnd({"--root", root.Path()}); }

    bool WaitUntilReady() const {
        return TestSupport::WaitFor(
            [this] { return TestSupport::TempDir::ReadText(errors).find("ready") != std::string::npos; });
    }

    TestSupport::TempDir root;
    const std::string errors = root / "stderr";
    std::string said;
};

TEST_F(DaemonProcessTest, ItSaysWhenItIsReadyAnswersAndStopsWithStatusZero) {
    for (const int signal : {SIGTERM, SIGINT}) {
        Process daemon({"--root", root.Path()}, errors);
        ASSERT_TRUE(WaitUntilReady());
        EXPECT_EQ(TestSupport::TempDir::ReadText(errors),
                  "corvalentd: ready, root " + root.Path() + "/, pid " + std::to_string(daemon.GetPid()) + "\n");
        httplib::Client client(root / "run/agent.sock", 80);
        client.set_address_family(AF_UNIX);
        const httplib::Result status = client.Get("/status");
        ASSERT_TRUE(status);
        EXPECT_EQ(status->status, 200);

        daemon.Signal(signal);
        EXPECT_EQ(daemon.Wait(), 0);
        EXPECT_FALSE(fs::exists(root / "run/agent.sock"));
    }
}

TEST_F(DaemonProcessTest, WhatItMakesIsItsUsersAlone) {
    Process daemon({"--root", root.Path()}, errors);
    ASSERT_TRUE(WaitUntilReady());

    for (const char* name : {"conf", "data", "log", "run"}) {
        struct stat info {};
        ASSERT_EQ(stat((root / name).c_str(), &info), 0) << name;
        EXPECT_EQ(info.st_mode & 077U, 0U) << name;
    }
    for (const char* name : {"log/corvalent.log", "run/agent.lock", "run/agent.sock", "data/reports.db"}) {
        struct stat info {};
        ASSERT_EQ(stat((root / name).c_str(), &info), 0) << name;
        EXPECT_EQ(info.st_mode & 0777U, 0600U) << name;
    }
}

TEST_F(DaemonProcessTest, TheRootMayComeFromTheEnvironmentAndBeRelative) {
    setenv("CORVALENT_ROOT", fs::relative(root.Path()).c_str(), 1);
    Process daemon({}, errors);
    unsetenv("CORVALENT_ROOT");

    ASSERT_TRUE(WaitUntilReady());
    EXPECT_THAT(TestSupport::TempDir::ReadText(errors), HasSubstr("root " + root.Path() + "/,"));
}

TEST_F(DaemonProcessTest, ASecondDaemonInOneRootIsRefused) {
    Process daemon({"--root", root.Path()}, root / "first");
    ASSERT_TRUE(TestSupport::WaitFor([this] { return fs::exists(root / "run/agent.sock"); }));

    EXPECT_EQ(RunToTheEnd(), 75);
    EXPECT_THAT(said, HasSubstr("another daemon (pid " + std::to_string(daemon.GetPid()) + ")"));
    EXPECT_TRUE(fs::exists(root / "run/agent.sock"));
}

TEST_F(DaemonProcessTest, ADaemonThatWasKilledLeavesTheRootUsable) {
    {
        Process daemon({"--root", root.Path()}, errors);
        ASSERT_TRUE(WaitUntilReady());
    }
    ASSERT_TRUE(fs::exists(root / "run/agent.sock"));

    Process daemon({"--root", root.Path()}, errors);
    EXPECT_TRUE(WaitUntilReady());
}

TEST_F(DaemonProcessTest, AMissingRootOrModuleFolderIsSaidInOneLine) {
    EXPECT_EQ(RunToTheEnd({"--root", root / "none"}), 66);
    EXPECT_EQ(said,
              "corvalentd: there is no folder [" + (root / "none/") + "]: a root is what the agent was installed to\n");

    fs::remove_all(root / "module");
    EXPECT_EQ(RunToTheEnd(), 66);
    EXPECT_THAT(said, HasSubstr("[" + (root / "module") + "]"));
    EXPECT_FALSE(fs::exists(root / "conf"));
}

TEST_F(DaemonProcessTest, BadSettingsAreSaidInOneLine) {
    root.Write("conf/agent.json", R"({"colour":"blue"})");

    EXPECT_EQ(RunToTheEnd(), 78);
    EXPECT_EQ(said, "corvalentd: " + (root / "conf/agent.json") + ": unknown member \"colour\"\n");
}

TEST_F(DaemonProcessTest, MetricsAreForThisMachineAlone) {
    root.Write("conf/agent.json", R"({"metrics":{"address":"0.0.0.0","port":9100}})");

    EXPECT_EQ(RunToTheEnd(), 78);
    EXPECT_EQ(said, "corvalentd: " + (root / "conf/agent.json") +
                        ": \"metrics.address\" has to be a loopback address: 127.0.0.1, another one of 127.0.0.0/8, or "
                        "::1\n");
}

TEST_F(DaemonProcessTest, APortForMetricsThatIsInUseIsSaidInOneLine) {
    const TestSupport::LoopbackListener other;
    const std::string port = std::to_string(other.Port());
    root.Write("conf/agent.json", R"({"metrics":{"port":)" + port + "}}");

    EXPECT_EQ(RunToTheEnd(), 73);
    EXPECT_EQ(said, "corvalentd: cannot serve metrics on [127.0.0.1] port " + port + ": Address already in use\n");
    EXPECT_FALSE(fs::exists(root / "run/agent.sock"));
}

TEST_F(DaemonProcessTest, TheServiceManagerHearsOfTheStartOfEachSignOfLifeAndOfTheEnd) {
    const TestSupport::ServiceManager manager(root / "notify");
    setenv("WATCHDOG_USEC", "100000", 1);
    Process daemon({"--root", root.Path()}, errors);
    unsetenv("WATCHDOG_USEC");
    std::vector<std::string> messages;
    const auto hear = [&] {
        for (std::string message = manager.Received(); message != "<nothing>"; message = manager.Received()) {
            messages.push_back(message);
        }
        return messages.size();
    };

    ASSERT_TRUE(TestSupport::WaitFor([&] { return hear() >= 4; }));
    EXPECT_EQ(messages[0], "READY=1");
    for (std::size_t i = 1; i < messages.size(); ++i) {
        EXPECT_THAT(messages[i], StartsWith("WATCHDOG=1\nSTATUS=mode not known; "));
    }

    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.Wait(), 0);
    hear();
    EXPECT_THAT(messages, Contains("STOPPING=1"));
}

TEST_F(DaemonProcessTest, AServiceLogsToTheJournalAndEveryoneElseToTheFile) {
    {
        Process daemon({"--root", root.Path()}, errors, Stream::JOURNAL);
        ASSERT_TRUE(WaitUntilReady());
        const std::string lines = TestSupport::TempDir::ReadText(errors);
        EXPECT_THAT(lines, StartsWith("<5>daemon Daemon.cpp:"));
        EXPECT_THAT(lines, HasSubstr(" version "));
        EXPECT_FALSE(fs::exists(root / "log/corvalent.log"));
    }
    root.Write("conf/agent.json", R"({"log":{"target":"file"}})");
    {
        Process daemon({"--root", root.Path()}, errors, Stream::JOURNAL);
        ASSERT_TRUE(WaitUntilReady());
        EXPECT_THAT(TestSupport::TempDir::ReadText(errors), StartsWith("corvalentd: ready, "));
        EXPECT_THAT(root.Read("log/corvalent.log"), HasSubstr(" version "));
    }
}

TEST_F(DaemonProcessTest, AModuleThatIsNoModuleIsSaidInOneLine) {
    root.Write("module/libbroken_module.so", "no library");

    EXPECT_EQ(RunToTheEnd(), 70);
    EXPECT_THAT(said, StartsWith("corvalentd: module [" + (root / "module/libbroken_module.so") + "]"));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

TEST_F(DaemonProcessTest, AModuleThatCannotStartGivesTheStatusAndTheReason) {
    fs::create_symlink(STOPPER_MODULE, root / "module/libstopper_module.so");

    EXPECT_EQ(RunToTheEnd(), 77);
    EXPECT_EQ(said, "corvalentd: a module cannot start: the permission to stop is missing\n");
    EXPECT_FALSE(fs::exists(root / "run/agent.sock"));
}

TEST_F(DaemonProcessTest, ARootTooLongForASocketIsSaid) {
    const std::string longRoot = root / std::string(120, 'r');
    fs::create_directories(longRoot);
    fs::copy(root / "module", longRoot + "/module", fs::copy_options::copy_symlinks | fs::copy_options::recursive);

    EXPECT_EQ(RunToTheEnd({"--root", longRoot}), 73);
    EXPECT_THAT(said, HasSubstr("too long for a socket"));
}

TEST_F(DaemonProcessTest, BadUsageIsStatusTwo) {
    EXPECT_EQ(RunToTheEnd({"--rot", "x"}), 2);
    EXPECT_THAT(said, StartsWith("corvalentd: "));
    EXPECT_EQ(RunToTheEnd({"--root"}), 2);
    EXPECT_EQ(RunToTheEnd({"start"}), 2);
}

TEST_F(DaemonProcessTest, HelpAndVersionAreStatusZero) {
    EXPECT_EQ(RunToTheEnd({"--help"}), 0);
    EXPECT_THAT(said, HasSubstr("--console"));
    EXPECT_EQ(RunToTheEnd({"--version"}), 0);
    EXPECT_EQ(said, std::string("corvalentd ") + CORVALENT_VERSION + "\n");
}

TEST_F(DaemonProcessTest, ModulesAreLoadedInTheirOrder) {
    for (const char* name : {"libwhitelist", "libaaa", "libprocess_collect", "libfilenotify", "libisolate"}) {
        root.Write(std::string("module/") + name + "_module.so", "");
    }
    root.Write("module/readme.txt", "");
    root.Write("module/libother.so", "");
    std::vector<std::string> names;
    for (const std::string& path : Daemon::Daemon::ListModules(root / "module")) {
        names.push_back(fs::path(path).filename().string());
    }

    EXPECT_THAT(names, ElementsAre("libdata_comm_module.so", "libisolate_module.so", "libprocess_collect_module.so",
                                   "libaaa_module.so", "libfilenotify_module.so", "libwhitelist_module.so"));
}

} // namespace
