#include "ctl/Client.h"

#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "agent/sdk/FileDescriptor.h"
#include "ctl/Failure.h"
#include "support/TempRoot.h"

namespace {

// A daemon that takes connections and says nothing.
class SilentDaemon {
public:
    explicit SilentDaemon(const std::string& path) : mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        constexpr int BACKLOG = 8;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (bind(mSocket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(mSocket.Get(), BACKLOG) != 0) {
            throw std::runtime_error("cannot listen on " + path);
        }
    }

private:
    const SDK::FileDescriptor mSocket;
};

TEST(ClientTest, ADaemonThatDoesNotAnswerInTimeIsSaid) {
    const TestSupport::TempRoot root;
    const SilentDaemon daemon(root / "run/agent.sock");
    const Ctl::Client client(root.Path(), std::chrono::seconds(1));
    try {
        client.Get("/status");
        FAIL() << "an answer";
    } catch (const Ctl::Failure& failure) {
        EXPECT_STREQ(failure.what(), "the daemon does not answer within 1 s");
        EXPECT_EQ(failure.GetStatus(), Ctl::EXIT_FAILED);
    }
}

} // namespace
