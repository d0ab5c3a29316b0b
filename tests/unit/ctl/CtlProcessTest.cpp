#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/daemon/ControlServer.h"
#include "agent/data_comm/DataCommModule.h"
#include "agent/data_comm/ReportStore.h"
#include "sdk/JsonUtils.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"
#include "unit/agent/daemon/FakeWhitelist.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* POLICY = R"({"content":{},"enabled":"enabled","feature_hash":"h1"})";

constexpr const char* ALERT =
    R"({"event_id":"0b9e3c1e-0000-4000-8000-000000000001","occur_time":1767225599,"process_info":{"block":1,)"
    R"("process_hash":"abcdef0123456789abcdef","process_path":"/tmp/\u001b[31mevil\n","process_pid":4711,)"
    R"("process_username":"joe"}})";

// The program as a process of its own, with its three standard streams in files.
class Ctl {
public:
    Ctl(std::vector<std::string> arguments, const TestSupport::TempDir& folder, const std::string& input)
        : mFolder(folder) {
        folder.Write("stdin", input);
        std::filesystem::remove(folder / "stdout");
        std::filesystem::remove(folder / "stderr");
        arguments.insert(arguments.begin(), CORVALENTCTL);
        std::vector<char*> words;
        for (std::string& argument : arguments) {
            words.push_back(argument.data());
        }
        words.push_back(nullptr);
        // Nothing is allocated in the child: another thread may have held the heap's lock at the fork.
        const std::string in = folder / "stdin";
        const std::string out = folder / "stdout";
        const std::string err = folder / "stderr";
        mPid = fork();
        if (mPid == 0) {
            dup2(open(in.c_str(), O_RDONLY), STDIN_FILENO);
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600), STDERR_FILENO);
            execv(CORVALENTCTL, words.data());
            _exit(126);
        }
        if (mPid < 0) {
            throw std::runtime_error("cannot fork");
        }
    }
    ~Ctl() {
        if (mPid > 0) {
            kill(mPid, SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
    }
    Ctl(const Ctl&) = delete;
    Ctl& operator=(const Ctl&) = delete;

    void Interrupt() const { kill(mPid, SIGINT); }

    // The exit status; -1 when it has not ended within the deadline or was killed by a signal.
    int Wait() {
        int status = 0;
        if (!TestSupport::WaitFor([&] { return waitpid(mPid, &status, WNOHANG) == mPid; })) {
            return -1;
        }
        mPid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string Output() const { return mFolder.Read("stdout"); }
    std::string Errors() const { return mFolder.Read("stderr"); }

private:
    const TestSupport::TempDir& mFolder;
    pid_t mPid = -1;
};

long CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

class CtlProcessTest : public testing::Test {
protected:
    CtlProcessTest() {
        setenv("TZ", "UTC", 1);
        setenv("CORVALENT_ROOT", root.Path().c_str(), 1);
        engine.AddModule(new Engine::DataCommModule, new Engine::DataCommInspector);
        engine.AddModule(new TestSupport::FakeWhitelist(module), new TestSupport::FakeWhitelistInspector(module));
        EXPECT_EQ(engine.InitModules(), 0);
        deliveries = std::make_unique<Daemon::Deliveries>(engine, root.Path() + "/conf/");
        statusSource = std::make_unique<Daemon::Status>(engine, *deliveries);
        server = std::make_unique<Daemon::ControlServer>(engine, *deliveries, *statusSource);
        std::string reason;
        EXPECT_TRUE(server->Start(root / "run/agent.sock", reason)) << reason;
    }
    ~CtlProcessTest() override {
        deliveries->Stop();
        server.reset();
        statusSource.reset();
        deliveries.reset();
        engine.UnInitModules();
    }

    // Runs the program to its end; what it wrote is in `out` and `err`.
    int Run(const std::vector<std::string>& arguments, const std::string& input = "") {
        Ctl ctl(arguments, streams, input);
        const int status = ctl.Wait();
        out = ctl.Output();
        err = ctl.Errors();
        return status;
    }

    void Store(const std::vector<Engine::Report>& reports) {
        Engine::ReportStore store(Engine::GetReportsPath());
        std::string reason;
        ASSERT_TRUE(store.Append(reports, reason)) << reason;
    }

    // A failure: its status, nothing on standard output, one line that says what and why.
    void ExpectFailure(const std::vector<std::string>& arguments, int status, const std::string& part) {
        EXPECT_EQ(Run(arguments), status) << testing::PrintToString(arguments);
        EXPECT_EQ(out, "");
        EXPECT_THAT(err, StartsWith("corvalentctl: "));
        EXPECT_THAT(err, HasSubstr(part));
        EXPECT_EQ(CountLines(err), 1) << err;
    }

    TestSupport::TempRoot root;
    TestSupport::TempDir streams;
    TestSupport::FakeWhitelistStatePtr module = std::make_shared<TestSupport::FakeWhitelistState>();
    Framework::Engine engine;
    TestSupport::LogRecorder log; // behind the engine, which leads all loggers to the console
    std::unique_ptr<Daemon::Deliveries> deliveries;
    std::unique_ptr<Daemon::Status> statusSource;
    std::unique_ptr<Daemon::ControlServer> server;
    std::string out;
    std::string err;
};

TEST_F(CtlProcessTest, MetricsArePrintedAsTheyAre) {
    EXPECT_EQ(Run({"metrics"}), 0) << err;
    EXPECT_EQ(err, "");
    EXPECT_THAT(out, StartsWith("# HELP corvalent_alerts_total Alerts in the history, all time.\n"
                                "# TYPE corvalent_alerts_total counter\n"
                                "corvalent_alerts_total 0\n"));
    EXPECT_THAT(out, HasSubstr("\ncorvalent_mode{mode=\"learning\"} 1\n"));
    EXPECT_EQ(out.back(), '\n');
}

TEST_F(CtlProcessTest, MetricsTakeNoArgumentAndNeedADaemon) {
    ExpectFailure({"metrics", "all"}, 2, "all");
    ExpectFailure({"metrics", "--json"}, 2, "--json");
    server->Stop();
    ExpectFailure({"metrics"}, 69, "no daemon listens");
}

TEST_F(CtlProcessTest, StatusSaysTheSameForPeopleAndForPrograms) {
    ASSERT_TRUE(deliveries->ApplyPolicy(POLICY).accepted);

    EXPECT_EQ(Run({"status"}), 0);
    for (const char* part : {"mode       1 (other)\n", "learned    17 of 10080 minutes\n", "detection  not wished\n",
                             "hash h1", "lists      5 local, 5 server, 5 OS preset, 5 service preset\n",
                             "blocking   asked for, not in force; 20 entries count, more than 50 needed\n",
                             "events     0 exec, 0 fork", "alerts     0\n", "scope      the whole machine\n",
                             "data_comm_report_task  running  0       10240     0\n"}) {
        EXPECT_THAT(out, HasSubstr(part));
    }
    EXPECT_THAT(out, testing::Not(HasSubstr("\033")));
    EXPECT_EQ(err, "");

    EXPECT_EQ(Run({"status", "--json"}), 0);
    EXPECT_EQ(CountLines(out), 1);
    Json::Value status;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(out, status), 0);
    EXPECT_EQ(status["learned_minutes"], 17);
    EXPECT_EQ(status["pid"], getpid());
    EXPECT_EQ(status["policy"]["hash"], "h1");
}

TEST_F(CtlProcessTest, StatusSaysWhenTheModeIsNotKnown) {
    module->answers = false;

    EXPECT_EQ(Run({"status"}), 0);
    EXPECT_THAT(out, HasSubstr("mode       not known (not now)\n"));
    EXPECT_THAT(out, HasSubstr("policy     none accepted yet\n"));
}

TEST_F(CtlProcessTest, APolicyIsAppliedFromAFileOrStandardInputAndShown) {
    EXPECT_EQ(Run({"policy", "apply", streams.Write("policy.json", POLICY)}), 0);
    EXPECT_EQ(out, "policy accepted\n");
    EXPECT_EQ(err, "");
    EXPECT_EQ(root.Read("conf/policy.json"), POLICY);

    EXPECT_EQ(Run({"policy", "apply", "-"}, R"({"feature_hash":"h2"})"), 0);
    EXPECT_EQ(Run({"policy", "show"}), 0);
    EXPECT_EQ(out, "{\"feature_hash\":\"h2\"}\n");
}

TEST_F(CtlProcessTest, APolicyThatIsRefusedOrCannotBeReadIsStatusOne) {
    ExpectFailure({"policy", "show"}, 1, "no policy has been accepted yet");
    ExpectFailure({"policy", "apply", streams.Write("bad.json", "{ no json")}, 1, "Parse Policy Failed");
    ExpectFailure({"policy", "apply", streams.Write("empty.json", "")}, 1, "empty");
    ExpectFailure({"policy", "apply", streams / "none.json"}, 1, "No such file");
    ExpectFailure({"policy", "apply", streams.Path()}, 1, "Is a directory");
}

TEST_F(CtlProcessTest, ADocumentAboveTheLimitIsNotSent) {
    const std::string file = streams.Write("large.json", "");
    std::filesystem::resize_file(file, (64U << 20U) + 1);

    ExpectFailure({"policy", "apply", file}, 1, "larger than");
    EXPECT_THAT(module->Calls(), IsEmpty());
}

TEST_F(CtlProcessTest, ACommandIsSentWithItsTextOrWithout) {
    EXPECT_EQ(Run({"command", "whitelist_10001", streams.Write("list.json", "{\"a\": 1}")}), 0);
    EXPECT_EQ(out, "command done\n");
    EXPECT_EQ(Run({"command", "whitelist_10001", "-"}, "from a pipe"), 0);
    EXPECT_EQ(Run({"command", "whitelist_10004"}), 0);

    EXPECT_THAT(module->Calls(), ElementsAre("10001 {\"a\": 1}", "10001 from a pipe", "10004"));
}

TEST_F(CtlProcessTest, ACommandThatIsRefusedUnknownOrMalformedSaysWhy) {
    ExpectFailure({"command", "whitelist_10001"}, 1, "without a document");
    ExpectFailure({"command", "whitelist_77777"}, 1, "whitelist_77777");
    ExpectFailure({"command", "whitelist_10001", streams / "none.json"}, 1, "No such file");
    ExpectFailure({"command", "../status"}, 2, "a key consists of");
    ExpectFailure({"command"}, 2, "KEY");
}

TEST_F(CtlProcessTest, LearningIsResetByName) {
    EXPECT_EQ(Run({"learn", "reset"}), 0);
    EXPECT_EQ(out, "learning reset\n");
    EXPECT_THAT(module->Calls(), ElementsAre("10004"));
}

TEST_F(CtlProcessTest, DetectionIsStartedByNameOrRefusedWithTheReason) {
    ExpectFailure({"detect", "start"}, 1, "current mod is [1]");

    module->mode = 2;
    EXPECT_EQ(Run({"detect", "start"}), 0);
    EXPECT_EQ(out, "detection started\n");
    EXPECT_EQ(Run({"detect", "start"}), 0);
    EXPECT_THAT(err, StartsWith("note: "));
}

TEST_F(CtlProcessTest, TheTrustListsArePrintedForPeopleAndForPrograms) {
    EXPECT_EQ(Run({"trust", "list"}), 0);
    EXPECT_EQ(out, "SHA-256" + std::string(59, ' ') + "BYTES  TYPE  NAME  PATH\n" + std::string(64, 'a') +
                       "  4711   1     tool  /usr/bin/local\\ntool\n");

    EXPECT_EQ(Run({"trust", "list", "--list", "server", "--json"}), 0);
    EXPECT_EQ(out, R"({"hash":")" + std::string(64, 'a') +
                       R"(","name":"tool","path":"/usr/bin/server\ntool","size":4711,"type":1})" + "\n");

    EXPECT_EQ(Run({"trust", "list", "--list", "os"}), 0);
    EXPECT_THAT(out, HasSubstr("  Debian  12       preset-of-os\n"));

    EXPECT_EQ(Run({"trust", "list", "--list", "service", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr("\"filename\":\"preset-of-service\""));
}

TEST_F(CtlProcessTest, ATrustListThatDoesNotExistOrCannotBeHadSaysSo) {
    ExpectFailure({"trust", "list", "--list", "all"}, 2, "all");
    ExpectFailure({"trust"}, 2, "subcommand");

    module->answers = false;
    ExpectFailure({"trust", "list"}, 1, "not now");
}

TEST_F(CtlProcessTest, AlertsArePrintedForPeopleWithoutWhatCouldSteerATerminal) {
    Store({{0, 5, "whitelist_6", "{}"}, {0, 1767225600, "whitelist_4", ALERT}});

    EXPECT_EQ(Run({"alerts"}), 0);
    EXPECT_EQ(out, "2025-12-31 23:59:59  4711    blocked joe           abcdef012345  "
                   "0b9e3c1e-0000-4000-8000-000000000001  /tmp/\\x1b[31mevil\\n\n");
}

TEST_F(CtlProcessTest, AlertsArePrintedForProgramsOneAValue) {
    Store({{0, 5, "whitelist_6", "{}"}, {0, 6, "whitelist_4", "{\"a\":1}"}, {0, 7, "whitelist_4", "odd"}});

    EXPECT_EQ(Run({"alerts", "--json"}), 0);
    EXPECT_EQ(out, "{\"data\":{\"a\":1},\"id\":2,\"time\":6,\"type\":\"whitelist_4\"}\n"
                   "{\"data\":\"odd\",\"id\":3,\"time\":7,\"type\":\"whitelist_4\"}\n");
    EXPECT_EQ(Run({"alerts", "--json", "--since", "7"}), 0);
    EXPECT_EQ(CountLines(out), 1);
}

TEST_F(CtlProcessTest, TheSummaryOfAlertsIsPrintedForPeopleAndForPrograms) {
    const std::string seen = R"({"process_info":{"block":0,"process_hash":"abcd","process_path":"/a\nb",)"
                             R"("process_uid":0,"process_username":"joe"}})";
    Store({{0, 5, "whitelist_4", seen}, {0, 65, "whitelist_4", seen}, {0, 66, "whitelist_4", ALERT}});

    EXPECT_EQ(Run({"alerts", "--summary"}), 0);
    EXPECT_EQ(out, "COUNT  FIRST SEEN           LAST SEEN            USERS  SHA-256  PATH\n"
                   "2      1970-01-01 00:00:05  1970-01-01 00:01:05  joe    abcd     /a\\nb\n");
    EXPECT_EQ(Run({"alerts", "--summary", "--json", "--since", "6"}), 0);
    EXPECT_EQ(out, R"({"count":1,"first_seen":65,"hash":"abcd","last_seen":65,"path":"/a\nb","users":["joe"]})"
                   "\n");
    EXPECT_EQ(Run({"alerts", "--summary", "--json", "--since", "1d"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
}

TEST_F(CtlProcessTest, ASummaryCannotBeFollowed) {
    ExpectFailure({"alerts", "--summary", "--follow"}, 2, "--follow");
    ExpectFailure({"alerts", "--follow", "--summary", "--json"}, 2, "--summary");
    ExpectFailure({"reports", "--summary"}, 2, "--summary");
    ExpectFailure({"alerts", "--summary", "--since", "x"}, 2, "[x] is no time");
}

TEST_F(CtlProcessTest, AnExplanationIsPrintedWithoutWhatCouldSteerATerminal) {
    EXPECT_EQ(Run({"explain", "12"}), 0);
    for (const char* part :
         {"process      12\n", "image        /opt/\\x1b[31mtool\n",
          "local           no       known, with another digest: /usr/bin/local\\ntool, sha256 aaaa",
          "OS preset       no       known, with another digest: preset-of-os, Debian 12, sha256 bbbb",
          "\nin detection  untrusted: reported only: the lists hold 7 entries, and nothing is blocked "
          "up to 50\n",
          "\nnote          one\\nnote\n"}) {
        EXPECT_THAT(out, HasSubstr(part));
    }
    EXPECT_EQ(Run({"explain", "--json", "12"}), 0);
    EXPECT_EQ(CountLines(out), 1);
    EXPECT_THAT(out, HasSubstr("\"pid\":12,"));
    EXPECT_EQ(err, "");
}

TEST_F(CtlProcessTest, AFileIsNamedToTheDaemonAsTheKernelWouldNameIt) {
    const std::string folder = std::filesystem::canonical(streams.Path()).string();
    streams.Write("123", "");
    std::filesystem::create_symlink("123", streams / "link");
    std::filesystem::current_path(folder);
    for (const char* name : {"./123", "link", "../../tmp/../proc/self/cwd/link"}) {
        EXPECT_EQ(Run({"explain", "--json", name}), 0) << name;
        EXPECT_THAT(out, HasSubstr("\"file\":\"" + folder + "/123\"")) << name;
    }
    streams.Write("a &b\xff", "");
    EXPECT_EQ(Run({"explain", "--json", "a &b\xff"}), 0);
    EXPECT_THAT(out, HasSubstr("\"file\":\"" + folder + "/a &b\\udcff\""));
}

TEST_F(CtlProcessTest, WhatCannotBeExplainedSaysWhy) {
    ExpectFailure({"explain", streams / "none"}, 1, "cannot find [" + (streams / "none") + "]: No such file");
    ExpectFailure({"explain", "99999999999999999999"}, 1, "[99999999999999999999] is no process id");
    ExpectFailure({"explain", ""}, 2, "an empty name is no file");
    module->answers = false;
    ExpectFailure({"explain", "12"}, 1, "not now");
}

TEST_F(CtlProcessTest, AnAlertThatIsIncompleteIsStillALine) {
    Store({{0, 6, "whitelist_4", "odd"}, {0, 7, "whitelist_4", R"({"process_info":[]})"}});

    EXPECT_EQ(Run({"alerts"}), 0);
    EXPECT_EQ(CountLines(out), 2);
    EXPECT_THAT(out, StartsWith("1970-01-01 00:00:06  -"));
}

TEST_F(CtlProcessTest, ReportsAreChosenByTypeAndTime) {
    Store({{0, 5, "whitelist_6", "{\"m\":2}"}, {0, 6, "odd type&", "two\nlines"}, {0, 7, "whitelist_6", "{}"}});

    EXPECT_EQ(Run({"reports"}), 0);
    EXPECT_EQ(out, "1970-01-01 00:00:05  1       whitelist_6   {\"m\":2}\n"
                   "1970-01-01 00:00:06  2       odd type&     two\\nlines\n"
                   "1970-01-01 00:00:07  3       whitelist_6   {}\n");
    EXPECT_EQ(Run({"reports", "--json", "--type", "odd type&"}), 0);
    EXPECT_EQ(out, "{\"data\":\"two\\nlines\",\"id\":2,\"time\":6,\"type\":\"odd type&\"}\n");
    EXPECT_EQ(Run({"reports", "--since", "1970-01-01 00:00:07"}), 0);
    EXPECT_EQ(CountLines(out), 1);
    EXPECT_EQ(Run({"reports", "--since", "1d"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(CtlProcessTest, AHistoryLongerThanOneAnswerIsPrintedWhole) {
    Store(std::vector<Engine::Report>(2500, {0, 5, "whitelist_6", "{}"}));

    EXPECT_EQ(Run({"reports", "--json"}), 0);
    EXPECT_EQ(CountLines(out), 2500);
    EXPECT_THAT(out, testing::EndsWith("\"id\":2500,\"time\":5,\"type\":\"whitelist_6\"}\n"));
}

TEST_F(CtlProcessTest, FollowGoesOnUntilInterruptedAndPrintsNothingTwice) {
    for (const char* verb : {"alerts", "reports"}) {
        const std::string path = Engine::GetReportsPath();
        Engine::ReportStore store(path);
        Store({{0, 5, "whitelist_4", "\"first\""}});
        Ctl ctl({verb, "--json", "--follow", "--since", "5"}, streams, "");
        const auto lines = [&] { return CountLines(ctl.Output()); };
        ASSERT_TRUE(TestSupport::WaitFor([&] { return lines() >= 1; }));
        const long before = lines();

        Store({{0, 6, "whitelist_4", "\"second\""}});
        EXPECT_TRUE(TestSupport::WaitFor([&] { return lines() == before + 1; }));
        Store({{0, 7, "whitelist_4", "\"third\""}});
        EXPECT_TRUE(TestSupport::WaitFor([&] { return lines() == before + 2; }));

        ctl.Interrupt();
        EXPECT_EQ(ctl.Wait(), 0);
        EXPECT_EQ(lines(), before + 2);
        EXPECT_THAT(ctl.Output(), testing::EndsWith("\"time\":7,\"type\":\"whitelist_4\"}\n"));
        EXPECT_EQ(ctl.Errors(), "");
    }
}

TEST_F(CtlProcessTest, FollowEndsWithStatus69WhenTheDaemonGoesAway) {
    Ctl ctl({"alerts", "--follow"}, streams, "");
    Store({{0, 5, "whitelist_4", ALERT}});
    ASSERT_TRUE(TestSupport::WaitFor([&] { return CountLines(ctl.Output()) == 1; }));

    server->Stop();

    EXPECT_EQ(ctl.Wait(), 69);
    EXPECT_EQ(CountLines(ctl.Errors()), 1);
}

TEST_F(CtlProcessTest, AHistoryThatCannotBeReadIsStatusOne) {
    engine.UnInitModules();

    ExpectFailure({"alerts"}, 1, "data_comm_module");
    ExpectFailure({"reports"}, 1, "data_comm_module");
}

TEST_F(CtlProcessTest, ATimeThatIsNoneIsBadUsage) {
    ExpectFailure({"alerts", "--since", "yesterday"}, 2, "[yesterday] is no time");
    ExpectFailure({"reports", "--since", "10x"}, 2, "[10x] is no time");
}

TEST_F(CtlProcessTest, TheRootMayStandBeforeOrBehindTheVerb) {
    unsetenv("CORVALENT_ROOT");
    EXPECT_EQ(Run({"--root", root.Path(), "alerts"}), 0);
    EXPECT_EQ(Run({"alerts", "--root", root.Path() + "/"}), 0);
    EXPECT_EQ(Run({"trust", "list", "--root=" + root.Path(), "--json"}), 0);
    EXPECT_EQ(CountLines(out), 1);
}

TEST_F(CtlProcessTest, WithoutADaemonEveryVerbIsStatus69) {
    const std::string file = streams.Write("policy.json", POLICY);
    const TestSupport::TempDir empty;
    const std::vector<std::vector<std::string>> verbs = {
        {"status"},
        {"policy", "apply", file},
        {"policy", "show"},
        {"command", "whitelist_10004"},
        {"learn", "reset"},
        {"detect", "start"},
        {"trust", "list"},
        {"alerts"},
        {"reports"},
        {"alerts", "--follow"},
        {"explain", "1"},
        {"explain", "/usr/bin/true"},
        {"alerts", "--summary"},
    };
    for (std::vector<std::string> verb : verbs) {
        verb.insert(verb.end(), {"--root", empty.Path()});
        ExpectFailure(verb, 69, "no daemon listens on [" + (empty / "run/agent.sock") + "]");
    }

    // The socket of a daemon that was killed.
    std::filesystem::create_directory(empty / "run");
    std::filesystem::rename(root / "run/agent.sock", empty / "run/agent.sock");
    server->Stop();
    ExpectFailure({"status", "--root", empty.Path()}, 69, "Connection refused");
}

TEST_F(CtlProcessTest, ARootThatNoSocketCanHaveIsStatusOne) {
    ExpectFailure({"status", "--root", "/tmp/" + std::string(200, 'x')}, 1, "too long");
}

TEST_F(CtlProcessTest, BadUsageIsStatusTwo) {
    const std::vector<std::vector<std::string>> usages = {
        {},
        {"staus"},
        {"status", "--jsn"},
        {"status", "extra"},
        {"status", "alerts"},
        {"policy"},
        {"policy", "apply"},
        {"policy", "apply", "a", "b"},
        {"policy", "show", "x"},
        {"learn"},
        {"learn", "more"},
        {"detect"},
        {"trust", "list", "--list"},
        {"alerts", "--type", "x"},
        {"reports", "--since"},
        {"explain"},
        {"explain", "1", "2"},
        {"explain", "1", "--since", "1d"},
        {"--root"},
    };
    for (const auto& usage : usages) {
        ExpectFailure(usage, 2, "");
    }
    EXPECT_THAT(module->Calls(), IsEmpty());
}

TEST_F(CtlProcessTest, HelpAndVersionAreStatusZero) {
    EXPECT_EQ(Run({"--help"}), 0);
    for (const char* verb :
         {"status", "policy", "command", "learn", "detect", "trust", "explain", "alerts", "reports"}) {
        EXPECT_THAT(out, HasSubstr(std::string("\n  ") + verb));
    }
    EXPECT_EQ(Run({"alerts", "--help"}), 0);
    EXPECT_THAT(out, HasSubstr("--follow"));
    EXPECT_EQ(Run({"--version"}), 0);
    EXPECT_EQ(out, std::string("corvalentctl ") + CORVALENT_VERSION + "\n");
}

TEST_F(CtlProcessTest, OutputThatCannotBeWrittenIsStatusOne) {
    Store({{0, 5, "whitelist_6", "{}"}});
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        execl(CORVALENTCTL, CORVALENTCTL, "reports", nullptr);
        _exit(126);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

} // namespace
