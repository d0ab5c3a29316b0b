#include "agent/daemon/MetricsServer.h"

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "support/LogRecorder.h"
#include "support/LoopbackListener.h"
#include "support/WaitFor.h"

namespace {

using Daemon::MetricsServer;
using testing::HasSubstr;

constexpr const char* ADDRESS = "127.0.0.1";

// A client that says what the test wants.
class Peer {
public:
    explicit Peer(int port) {
        const sockaddr_in address = TestSupport::MakeLoopback(port);
        EXPECT_EQ(connect(mFd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }

    bool Say(const std::string& text) const {
        return send(mFd.Get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }

    // All that comes until the server closes the connection.
    std::string Hear() const {
        std::string text;
        std::array<char, 4096> buffer{};
        for (;;) {
            const ssize_t count = recv(mFd.Get(), buffer.data(), buffer.size(), 0);
            if (count <= 0) {
                return text;
            }
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

private:
    SDK::FileDescriptor mFd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

class MetricsServerTest : public testing::Test {
protected:
    void Start() {
        std::string reason;
        ASSERT_TRUE(server.Start(ADDRESS, port, reason)) << reason;
    }

    httplib::Client Client() const {
        httplib::Client client(ADDRESS, port);
        client.set_read_timeout(20);
        return client;
    }

    const int port = TestSupport::FindFreePort();
    TestSupport::LogRecorder log;
    std::atomic<bool> fails{false};
    MetricsServer server{[this] {
                             if (fails) {
                                 throw std::runtime_error("no ink");
                             }
                             return std::string("up 1\n");
                         },
                         std::chrono::milliseconds(400)};
};

TEST_F(MetricsServerTest, TheMetricsAreServedWithTheFormatsOwnType) {
    Start();
    const httplib::Result result = Client().Get("/metrics?ignored=1");
    ASSERT_TRUE(result) << httplib::to_string(result.error());
    EXPECT_EQ(result->status, 200);
    EXPECT_EQ(result->body, "up 1\n");
    EXPECT_EQ(result->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
}

TEST_F(MetricsServerTest, NothingElseIsServed) {
    Start();
    for (const char* path : {"/", "/status", "/metrics/", "/metricsx", "/reports", "/policy"}) {
        const httplib::Result result = Client().Get(path);
        ASSERT_TRUE(result) << path;
        EXPECT_EQ(result->status, 404) << path;
    }
    const httplib::Result posted = Client().Post("/metrics", std::string(100000, 'x'), "text/plain");
    ASSERT_TRUE(posted) << httplib::to_string(posted.error());
    EXPECT_EQ(posted->status, 405);
    EXPECT_EQ(posted->get_header_value("Allow"), "GET");
    EXPECT_EQ(Client().Delete("/metrics")->status, 405);
    EXPECT_EQ(Client().Post("/command/whitelist_10004", "", "text/plain")->status, 404);
}

TEST_F(MetricsServerTest, AFaultIsAnsweredWithoutItsReasonWhichIsLogged) {
    Start();
    fails = true;
    const httplib::Result result = Client().Get("/metrics");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 500);
    EXPECT_THAT(result->body, testing::Not(HasSubstr("ink")));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "exception while the metrics were written: no ink"));
    fails = false;
    EXPECT_EQ(Client().Get("/metrics")->status, 200);
}

TEST_F(MetricsServerTest, APortThatAnotherListensOnIsNeverShared) {
    // That other has even allowed it.
    const TestSupport::LoopbackListener other;
    std::string reason;
    EXPECT_FALSE(server.Start(ADDRESS, other.Port(), reason));
    EXPECT_EQ(reason,
              "cannot serve metrics on [127.0.0.1] port " + std::to_string(other.Port()) + ": Address already in use");

    Start();
    MetricsServer second([] { return std::string(); });
    EXPECT_FALSE(second.Start(ADDRESS, port, reason));
    EXPECT_THAT(reason, HasSubstr("Address already in use"));
}

TEST_F(MetricsServerTest, ThePortIsFreeAgainRightAfterTheStop) {
    Start();
    ASSERT_TRUE(Client().Get("/metrics"));
    server.Stop();
    EXPECT_FALSE(Client().Get("/metrics"));
    MetricsServer next([] { return std::string("up 2\n"); });
    std::string reason;
    ASSERT_TRUE(next.Start(ADDRESS, port, reason)) << reason;
    EXPECT_EQ(Client().Get("/metrics")->body, "up 2\n");
}

TEST_F(MetricsServerTest, ManyAskAtOnce) {
    Start();
    // The HTTP library makes its tables at the first request, where ThreadSanitizer cannot see that it does so safely.
    EXPECT_EQ(Client().Get("/metrics")->status, 200);
    std::vector<std::future<int>> clients;
    for (int i = 0; i < 12; ++i) {
        clients.push_back(std::async(std::launch::async, [this] {
            const httplib::Result result = Client().Get("/metrics");
            return result ? result->status : 0;
        }));
    }
    for (std::future<int>& client : clients) {
        EXPECT_EQ(client.get(), 200);
    }
}

TEST_F(MetricsServerTest, PeersThatSayNothingOrLittleAreCutOffAndOthersServed) {
    Start();
    std::vector<std::unique_ptr<Peer>> silent;
    for (int i = 0; i < 5; ++i) {
        silent.push_back(std::make_unique<Peer>(port));
        EXPECT_TRUE(silent.back()->Say("GET /met"));
    }
    const httplib::Result result = Client().Get("/metrics");
    ASSERT_TRUE(result) << httplib::to_string(result.error());
    EXPECT_EQ(result->status, 200);
}

TEST_F(MetricsServerTest, APeerThatTricklesIsCutOffAllTheSame) {
    Start();
    const Peer peer(port);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(peer.Say("GET /metrics HTTP/1.1\r\nX: "));
    // It is over when the server does not take any more.
    EXPECT_TRUE(TestSupport::WaitFor([&] { return !peer.Say("x"); }));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(MetricsServerTest, AHeapOfHeadersOrNonsenseIsRefused) {
    Start();
    const Peer nonsense(port);
    ASSERT_TRUE(nonsense.Say("\x16\x03\x01 hello\r\n\r\n"));
    EXPECT_THAT(nonsense.Hear(), testing::Not(HasSubstr("200 OK")));
    EXPECT_EQ(Client().Get("/metrics", {{"X", std::string(20000, 'x')}})->status, 400);
    EXPECT_EQ(Client().Get(("/" + std::string(9000, 'x')).c_str())->status, 414);
    EXPECT_EQ(Client().Get("/metrics")->status, 200);
}

TEST_F(MetricsServerTest, AStopDoesNotWaitForASilentPeer) {
    Start();
    const Peer peer(port);
    ASSERT_TRUE(peer.Say("GET /met"));
    const auto begin = std::chrono::steady_clock::now();
    server.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST_F(MetricsServerTest, TheSixthVersionsLoopbackWorks) {
    std::string reason;
    if (const SDK::FileDescriptor six(socket(AF_INET6, SOCK_STREAM, 0)); six.IsOpen()) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        if (bind(six.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            EXPECT_FALSE(server.Start("::1", port, reason));
            EXPECT_THAT(reason, HasSubstr("cannot serve metrics on [::1]"));
            return;
        }
    }
    ASSERT_TRUE(server.Start("::1", port, reason)) << reason;
    EXPECT_EQ(httplib::Client("::1", port).Get("/metrics")->status, 200);
}

} // namespace
