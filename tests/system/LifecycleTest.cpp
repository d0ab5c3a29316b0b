#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/StateFiles.h"
#include "system/Traffic.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using testing::IsSubsetOf;
using TestSupport::ScopedProcess;
using TestSupport::TempDir;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds LONGEST_STOP{2000};

// The processes that were started with the text as one of their arguments.
std::vector<std::string> FindProcessesOf(const std::string& argument) {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::string cmdline = TempDir::ReadText(entry.path().string() + "/cmdline");
        if (cmdline.find(argument + '\0') != std::string::npos) {
            found.push_back(cmdline);
        }
    }
    return found;
}

// The daemon's end, in whatever state it is.
void ExpectOrderlyStop(Agent& agent) {
    EXPECT_LT(agent.Stop(), LONGEST_STOP);
    ExpectWholeStateFiles(agent.Root());
    EXPECT_THAT(NamesIn(agent.Root() / "run"), IsSubsetOf({"agent.lock"}));
    EXPECT_TRUE(FindProcessesOf(agent.Root().Path()).empty());
}

void ExpectOneLine(const std::string& text) {
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

// ---- the end

TEST(LifecycleTest, ItStopsInOrderInEveryMode) {
    Agent agent;
    agent.Start();
    ExpectOrderlyStop(agent);

    agent.WriteLearned({.minutes = 10, .mode = LEARNING});
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_EQ(agent.GetMode(), LEARNING);
    ExpectOrderlyStop(agent);

    agent.WriteState(43200, LEARNED);
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), LEARNED);
    ExpectOrderlyStop(agent);

    agent.StartWatching();
    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    EXPECT_EQ(agent.GetMode(), DETECTING);
    ExpectOrderlyStop(agent);

    agent.WriteState(43200, STOPPED);
    agent.Root().Write("conf/desired.json", "{\"detect\":false}");
    agent.StartWatching();
    EXPECT_EQ(agent.GetMode(), STOPPED);
    ExpectOrderlyStop(agent);
}

TEST(LifecycleTest, ItStopsInOrderRightAfterAPolicyCame) {
    Agent agent;
    agent.Start();
    EXPECT_EQ(agent.Apply(MakePolicy({})).status, 0);
    ExpectOrderlyStop(agent);
}

TEST(LifecycleTest, ItStopsInOrderWhileProgramsStart) {
    Agent agent;
    agent.MakeDetecting({.programs = {"/usr/bin/true"}}, {});
    const Traffic traffic(agent.Scope().Path(), {{"/usr/bin/true"}});
    ASSERT_TRUE(WaitFor([&] { return traffic.Count() > 20; }));
    ExpectOrderlyStop(agent);
}

// A server that takes the connection and never says a word.
class MuteServer {
public:
    MuteServer() : mFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (bind(mFd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || listen(mFd, 1) != 0 ||
            getsockname(mFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("no listening socket");
        }
        mPort = ntohs(address.sin_port);
    }
    ~MuteServer() {
        close(mFd);
        close(mConnection);
    }
    MuteServer(const MuteServer&) = delete;
    MuteServer& operator=(const MuteServer&) = delete;

    std::string GetUrl() const { return "http://127.0.0.1:" + std::to_string(mPort) + "/list"; }

    bool WaitForConnection() {
        pollfd waited{mFd, POLLIN, 0};
        const int deadlineMs = static_cast<int>(std::chrono::milliseconds(TestSupport::DEADLINE).count());
        if (poll(&waited, 1, deadlineMs) == 1) {
            mConnection = accept4(mFd, nullptr, nullptr, SOCK_CLOEXEC);
        }
        return mConnection >= 0;
    }

private:
    const int mFd;
    int mConnection = -1;
    int mPort = 0;
};

TEST(LifecycleTest, ItStopsInOrderWhileADownloadHangs) {
    Agent agent;
    MuteServer server;
    agent.MakeDetecting();
    const std::string command = agent.Work().Write(
        "command.json", R"({"url": ")" + server.GetUrl() + R"(", "hash": ")" + std::string(64, 'a') + R"("})");
    Program delivery(
        {agent.Root() / "bin/corvalentctl", "--root", agent.Root().Path(), "command", "whitelist_10002", command},
        agent.Work() / "delivery");
    ASSERT_TRUE(server.WaitForConnection());
    const std::chrono::milliseconds took = agent.Stop();
    EXPECT_LT(took, LONGEST_STOP);
    EXPECT_TRUE(delivery.WaitForEnd(TestSupport::DEADLINE));
    ExpectWholeStateFiles(agent.Root());
}

// ---- many processes

TEST(LifecycleTest, ItStartsAmongTwoThousandProcesses) {
    constexpr std::size_t SLEEPERS = 2000;
    Agent agent;
    const ScopedProcess sleepers(agent.Scope().Path(), {FORK_SLEEPERS, std::to_string(SLEEPERS)});
    ASSERT_TRUE(WaitFor([&] { return agent.Scope().GetPids().size() == SLEEPERS + 1; }));
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_TRUE(WaitFor([&] { return agent.Status()["lists"]["local"].asInt() > 0; }));
    ASSERT_EQ(agent.Trust("local").size(), 1U);
    EXPECT_EQ(agent.Trust("local")[0]["path"].asString(), fs::canonical(FORK_SLEEPERS).string());
    EXPECT_EQ(agent.Trust("local")[0]["hash"].asString(), Sha256Of(FORK_SLEEPERS));
    EXPECT_EQ(agent.Status()["events"]["lost"].asInt(), 0);
    ExpectOrderlyStop(agent);

    agent.WriteLearned({});
    agent.StartWatching();
    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    agent.DrainEvents();
    // What ran before detection began is not judged.
    EXPECT_EQ(agent.Alerts().size(), 1U);
    ExpectOrderlyStop(agent);
}

// ---- starts that are refused

TEST(LifecycleTest, WithoutThePermissionItEndsWith77AndSaysWhich) {
    Agent agent;
    const Result run = agent.RunToTheEnd({"setpriv", "--bounding-set=-net_admin"});
    EXPECT_EQ(run.status, 77);
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, HasSubstr("CAP_NET_ADMIN"));
    ExpectOneLine(run.err);
    EXPECT_THAT(NamesIn(agent.Root() / "run"), IsSubsetOf({"agent.lock"}));
}

TEST(LifecycleTest, ASecondDaemonInTheSameRootIsRefusedAndTheFirstGoesOn) {
    Agent agent;
    agent.MakeDetecting();
    const Result run = agent.RunToTheEnd();
    EXPECT_EQ(run.status, 75);
    EXPECT_THAT(run.err, HasSubstr("another daemon (pid " + std::to_string(agent.GetPid()) + ")"));
    ExpectOneLine(run.err);
    agent.DrainEvents();
    EXPECT_EQ(agent.GetMode(), DETECTING);
}

TEST(LifecycleTest, BadSettingsAreRefusedByName) {
    struct Case {
        const char* settings;
        const char* named;
    };
    const std::vector<Case> cases = {
        {"{\"scope\": ", "not a JSON object"},
        {"{\"scoop\": {}}", "\"scoop\""},
        {"{\"scope\": {\"cgroup\": 7}}", "\"scope.cgroup\""},
        {"{\"scope\": {\"cgroup\": \"relative\"}}", "\"scope.cgroup\""},
        {"{\"cpu_budget_percent\": -1}", "\"cpu_budget_percent\""},
        {"{\"log\": {\"level\": \"loud\"}}", "\"log.level\""},
    };
    Agent agent;
    for (const Case& bad : cases) {
        SCOPED_TRACE(bad.settings);
        agent.Root().Write("conf/agent.json", bad.settings);
        const Result run = agent.RunToTheEnd();
        EXPECT_EQ(run.status, 78);
        EXPECT_THAT(run.err, HasSubstr("conf/agent.json"));
        EXPECT_THAT(run.err, HasSubstr(bad.named));
        ExpectOneLine(run.err);
    }
}

} // namespace
} // namespace SystemTest
