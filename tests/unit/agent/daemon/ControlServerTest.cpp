#include "agent/daemon/ControlServer.h"

#include <chrono>
#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "FakeWhitelist.h"
#include "agent/data_comm/DataCommModule.h"
#include "agent/data_comm/ReportStore.h"
#include "framework/Scope.h"
#include "sdk/JsonUtils.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using Daemon::ControlServer;
using Daemon::Deliveries;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* POLICY = R"({"feature_hash":"h1","enabled":"enabled","content":{}})";

class ControlServerTest : public testing::Test {
protected:
    ControlServerTest() {
        engine.AddModule(new Engine::DataCommModule, new Engine::DataCommInspector);
        engine.AddModule(new TestSupport::FakeWhitelist(module), new TestSupport::FakeWhitelistInspector(module));
        EXPECT_EQ(engine.InitModules(), 0);
        deliveries = std::make_unique<Deliveries>(engine, root.Path() + "/conf/");
        statusSource = std::make_unique<Daemon::Status>(engine, *deliveries);
        server = std::make_unique<ControlServer>(engine, *deliveries, *statusSource);
        std::string reason;
        EXPECT_TRUE(server->Start(socketPath, reason)) << reason;
    }
    ~ControlServerTest() override {
        deliveries->Stop();
        server.reset();
        statusSource.reset();
        deliveries.reset();
        engine.UnInitModules();
    }

    httplib::Client Client() const {
        httplib::Client client(socketPath, 80);
        client.set_address_family(AF_UNIX);
        client.set_read_timeout(20);
        return client;
    }

    struct Answer {
        int status = 0;
        Json::Value body;
        std::string Error() const { return SDK::JsonUtils::GetStringValue(body, "error", "<none>"); }
    };

    static Answer Read(const httplib::Result& result) {
        Answer answer;
        EXPECT_TRUE(result) << httplib::to_string(result.error());
        if (result) {
            answer.status = result->status;
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(result->body, answer.body), 0) << result->body;
        }
        return answer;
    }

    Answer Get(const std::string& path) const { return Read(Client().Get(path)); }
    Answer Post(const std::string& path, const std::string& body, const char* type = "application/json") const {
        return Read(Client().Post(path, body, type));
    }

    void Store(const std::vector<Engine::Report>& reports) {
        Engine::ReportStore store(Engine::GetReportsPath());
        std::string reason;
        ASSERT_TRUE(store.Append(reports, reason)) << reason;
    }

    TestSupport::TempRoot root;
    const std::string socketPath = root / "run/agent.sock";
    TestSupport::FakeWhitelistStatePtr module = std::make_shared<TestSupport::FakeWhitelistState>();
    Framework::Engine engine;
    TestSupport::LogRecorder log; // behind the engine, which leads all loggers to the console
    std::unique_ptr<Deliveries> deliveries;
    std::unique_ptr<Daemon::Status> statusSource;
    std::unique_ptr<ControlServer> server;
};

TEST_F(ControlServerTest, TheSocketIsItsUsersAlone) {
    struct stat info {};
    ASSERT_EQ(lstat(socketPath.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777U, 0600U);
}

TEST_F(ControlServerTest, StatusTellsEverythingThatAnOperatorAsksFor) {
    Store({{0, 1, "whitelist_4", "{}"}, {0, 2, "whitelist_6", "{}"}});
    Framework::Scope::SetCgroup("/some/group");
    ASSERT_TRUE(deliveries->ApplyPolicy(POLICY).accepted);

    const Answer answer = Get("/status");

    EXPECT_EQ(answer.status, 200);
    const Json::Value& status = answer.body;
    EXPECT_EQ(status["mode"], 1);
    EXPECT_EQ(status["mode_name"], "other");
    EXPECT_EQ(status["learned_minutes"], 17);
    EXPECT_EQ(status["learn_period_minutes"], 10080);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(status["lists"]),
              R"({"local":5,"os_preset":5,"server":5,"service_preset":5})");
    EXPECT_EQ(SDK::JsonUtils::JsonToString(status["blocking"]),
              R"({"entries":20,"floor":50,"in_force":false,"policy":true})");
    EXPECT_THAT(status["events"].getMemberNames(), ElementsAre("exec", "exit", "fork", "judged", "lost"));
    EXPECT_EQ(status["alerts"], 1);
    ASSERT_EQ(status["tasks"].size(), 1U);
    EXPECT_EQ(status["tasks"][0]["name"], "data_comm_report_task");
    EXPECT_EQ(status["tasks"][0]["capacity"], 10240);
    EXPECT_THAT(status["policy"].getMemberNames(), ElementsAre("accepted_time", "enabled", "hash"));
    EXPECT_EQ(status["policy"]["hash"], "h1");
    EXPECT_EQ(status["policy"]["enabled"], true);
    EXPECT_EQ(status["desired_detect"], false);
    EXPECT_TRUE(status["counters"].isObject());
    EXPECT_EQ(status["pid"], getpid());
    EXPECT_TRUE(status["uptime_seconds"].isInt());
    EXPECT_EQ(status["scope"], "/some/group");
    EXPECT_EQ(status["version"], CORVALENT_VERSION);
}

TEST_F(ControlServerTest, StatusSaysWhenTheModeIsNotKnown) {
    module->answers = false;

    const Answer answer = Get("/status");

    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(answer.body["mode"].isNull());
    EXPECT_EQ(answer.body["mode_error"], "not now");
    EXPECT_TRUE(answer.body["policy"].isNull());
}

TEST_F(ControlServerTest, MetricsTellTheSameAsTheStatus) {
    Store({{0, 1, "whitelist_4", "{}"}});

    const httplib::Result result = Client().Get("/metrics");

    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 200);
    EXPECT_EQ(result->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
    EXPECT_THAT(result->body, HasSubstr("\ncorvalent_mode{mode=\"learning\"} 1\n"));
    EXPECT_THAT(result->body, HasSubstr("corvalent_alerts_total 1\n"));
    EXPECT_THAT(result->body, HasSubstr("\ncorvalent_queue_capacity_messages{task=\"data_comm_report_task\"} 10240\n"));
}

TEST_F(ControlServerTest, APolicyIsDeliveredAndShown) {
    EXPECT_EQ(Get("/policy").status, 404);

    const Answer answer = Post("/policy", POLICY);

    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.body["accepted"], true);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Get("/policy").body["document"]),
              R"({"content":{},"enabled":"enabled","feature_hash":"h1"})");
}

TEST_F(ControlServerTest, ARefusedPolicyIsAnsweredWithTheReason) {
    const Answer refused = Post("/policy", "{ no json");
    EXPECT_EQ(refused.status, 422);
    EXPECT_THAT(refused.Error(), HasSubstr("Parse Policy Failed"));

    EXPECT_EQ(Post("/policy", "").status, 400);
}

TEST_F(ControlServerTest, ACommandIsDeliveredWhateverTheContentTypeOfItsText) {
    const std::string large(100000, 'x');

    EXPECT_EQ(Post("/command/whitelist_10001", large).status, 200);
    EXPECT_EQ(Post("/command/whitelist_10001", large, "application/x-www-form-urlencoded").status, 200);

    EXPECT_THAT(module->Calls(), ElementsAre("10001 " + large, "10001 " + large));
}

TEST_F(ControlServerTest, ADocumentOfManyMegabytesIsTaken) {
    const std::string large(30U << 20U, 'x');

    EXPECT_EQ(Post("/command/whitelist_10001", large).status, 200);
    ASSERT_EQ(module->Calls().size(), 1U);
    EXPECT_EQ(module->Calls()[0].size(), large.size() + 6);
}

TEST_F(ControlServerTest, ADocumentAboveTheLimitIsRefused) {
    const httplib::Result result =
        Client().Post("/command/whitelist_10001", std::string(ControlServer::MAX_BODY_BYTES + 1, 'x'), "text/plain");

    // The server may close the connection before the client has written everything.
    if (result) {
        EXPECT_EQ(result->status, 413);
    }
    EXPECT_TRUE(module->Calls().empty());
}

TEST_F(ControlServerTest, ACommandThatIsRefusedOrUnknownIsAnsweredWithTheReason) {
    const Answer start = Post("/command/whitelist_10005", "");
    EXPECT_EQ(start.status, 422);
    EXPECT_THAT(start.Error(), HasSubstr("current mod is [1]"));

    const Answer unknown = Post("/command/nothing", "");
    EXPECT_EQ(unknown.status, 422);
    EXPECT_THAT(unknown.Error(), HasSubstr("nothing"));
}

TEST_F(ControlServerTest, EachTrustListIsAnsweredByItsName) {
    for (const char* list : {"local", "server"}) {
        const Answer answer = Get(std::string("/trust?list=") + list);
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.body["process_info"][0]["path"], std::string("/usr/bin/") + list + "\ntool");
    }
    EXPECT_EQ(Get("/trust?list=os").body["process_info"][0]["filename"], "preset-of-os");
    EXPECT_EQ(Get("/trust?list=service").body["process_info"][0]["filename"], "preset-of-service");
    EXPECT_EQ(Get("/trust").body["process_info"][0]["path"], "/usr/bin/local\ntool");
    EXPECT_EQ(Get("/trust?list=all").status, 400);
}

TEST_F(ControlServerTest, AModuleThatCannotAnswerIsAConflict) {
    module->answers = false;

    const Answer answer = Get("/trust?list=local");

    EXPECT_EQ(answer.status, 409);
    EXPECT_EQ(answer.Error(), "not now");
}

TEST_F(ControlServerTest, ReportsAreAnsweredAsAskedFor) {
    Store({{0, 10, "a b", "{}"}, {0, 20, "whitelist_4", "{}"}, {0, 30, "a b", "text"}});

    EXPECT_EQ(Get("/reports").body["reports"].size(), 3U);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(Get("/reports?type=a%20b&since=10&after=1&limit=5").body),
              R"({"reports":[{"data":"text","id":3,"time":30,"type":"a b"}]})");
    EXPECT_EQ(Get("/reports?limit=1").body["reports"].size(), 1U);
    EXPECT_EQ(Get("/reports?limit=1&newest_first").body["reports"][0]["id"].asInt(), 3);
}

TEST_F(ControlServerTest, AFileOrAProcessIsExplained) {
    EXPECT_EQ(Get("/explain?path=%2Fa%20b%0A").body["file"], "/a b\n");
    EXPECT_EQ(Get("/explain?pid=12").body["pid"], 12);
    for (const char* query :
         {"", "?", "?path=%2Fa&pid=1", "?file=%2Fa", "?pid=", "?pid=1x", "?pid=-1", "?pid=99999999999999999999"}) {
        const Answer answer = Get(std::string("/explain") + query);
        EXPECT_EQ(answer.status, 400) << query;
        EXPECT_NE(answer.Error(), "<none>") << query;
    }
    const std::string longPath = "/" + std::string(4094, '\xfe');
    Json::Value question;
    question["path"] = longPath;
    EXPECT_EQ(Post("/explain", SDK::JsonUtils::JsonToString(question)).body["file"], longPath);
    for (const char* body : {"", "{}", "[]", "x", R"({"path":1})", R"({"pid":1})", R"({"path":"/a","pid":1})"}) {
        EXPECT_EQ(Post("/explain", body).status, 400) << body;
    }
    module->answers = false;
    EXPECT_EQ(Get("/explain?pid=12").status, 409);
}

TEST_F(ControlServerTest, AlertsAreSummedUp) {
    const std::string alert = R"({"process_info":{"block":0,"process_hash":"aa","process_path":"/a"}})";
    Store({{0, 10, "whitelist_4", alert}, {0, 20, "whitelist_4", alert}, {0, 30, "whitelist_6", "{}"}});

    EXPECT_EQ(Get("/reports/summary").body["programs"][0]["count"], 2);
    EXPECT_EQ(Get("/reports/summary?since=20").body["programs"][0]["count"], 1);
    EXPECT_EQ(Get("/reports/summary?since=yesterday").status, 400);
}

TEST_F(ControlServerTest, AQuestionThatMakesNoSenseIsABadRequest) {
    for (const char* query : {"since=yesterday", "after=-1", "limit=1x", "limit=", "since=99999999999999999999"}) {
        EXPECT_EQ(Get(std::string("/reports?") + query).status, 400) << query;
    }
}

TEST_F(ControlServerTest, WhatIsNotThereIsNotFound) {
    EXPECT_EQ(Get("/").status, 404);
    EXPECT_EQ(Get("/etc/passwd").Error(), "no such resource or method");
    EXPECT_EQ(Get("/command/whitelist_10004").status, 404);
    EXPECT_EQ(Post("/status", "").status, 404);
    EXPECT_EQ(Read(Client().Delete("/policy")).status, 404);
}

TEST_F(ControlServerTest, OthersAreAnsweredWhileADeliveryLasts) {
    module->commandMs = 300;
    auto delivery = std::async(std::launch::async, [this] { return Post("/command/whitelist_10001", "x").status; });
    ASSERT_TRUE(TestSupport::WaitFor([this] { return module->Calls().size() == 1; }));

    EXPECT_EQ(Get("/status").status, 200);
    EXPECT_EQ(delivery.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(delivery.get(), 200);
}

TEST_F(ControlServerTest, AStopRemovesTheSocketAndASilentPeerDoesNotHoldItUp) {
    const int peer = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(send(peer, "GET /sta", 8, 0), 8);

    const auto begin = std::chrono::steady_clock::now();
    server->Stop();

    EXPECT_LT(std::chrono::steady_clock::now() - begin, TestSupport::DEADLINE);
    EXPECT_FALSE(std::filesystem::exists(socketPath));
    close(peer);
}

TEST_F(ControlServerTest, ASocketThatWasLeftBehindIsReplaced) {
    const std::string left = root / "run/left.sock";
    const int dead = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    left.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(dead, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    close(dead);

    ControlServer other(engine, *deliveries, *statusSource);
    std::string reason;
    EXPECT_TRUE(other.Start(left, reason)) << reason;
}

TEST_F(ControlServerTest, APathThatNoSocketCanHaveIsRefused) {
    ControlServer other(engine, *deliveries, *statusSource);
    std::string reason;

    EXPECT_FALSE(other.Start("/tmp/" + std::string(200, 'x'), reason));
    EXPECT_THAT(reason, HasSubstr("too long"));
    EXPECT_FALSE(other.Start(root / "none/agent.sock", reason));
    EXPECT_THAT(reason, HasSubstr("cannot listen"));
}

} // namespace
