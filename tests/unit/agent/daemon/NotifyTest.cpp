#include "agent/daemon/Notify.h"

#include <array>
#include <cstddef>
#include <cstdlib>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/TempRoot.h"

namespace {

// What a service manager listens on; an abstract socket is named with a leading "@".
class Manager {
public:
    explicit Manager(const std::string& name) : mFd(socket(AF_UNIX, SOCK_DGRAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (name.front() == '@') {
            address.sun_path[0] = '\0';
        }
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(mFd, reinterpret_cast<const sockaddr*>(&address), length), 0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        close(mFd);
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    std::string Received() const {
        std::array<char, 128> text{};
        const ssize_t length = recv(mFd, text.data(), text.size(), MSG_DONTWAIT);
        return length < 0 ? "<nothing>" : std::string(text.data(), static_cast<std::size_t>(length));
    }

private:
    int mFd;
};

TEST(NotifyTest, TheManagerIsToldThroughAFileSocket) {
    const TestSupport::TempDir folder;
    const Manager manager(folder / "notify");

    Daemon::NotifyServiceManager("READY=1");
    EXPECT_EQ(manager.Received(), "READY=1");
}

TEST(NotifyTest, TheManagerIsToldThroughAnAbstractSocket) {
    const Manager manager("@corvalent-notify-test-" + std::to_string(getpid()));

    Daemon::NotifyServiceManager("STOPPING=1");
    EXPECT_EQ(manager.Received(), "STOPPING=1");
}

TEST(NotifyTest, WithoutAManagerNothingHappens) {
    unsetenv("NOTIFY_SOCKET");
    Daemon::NotifyServiceManager("READY=1");

    setenv("NOTIFY_SOCKET", ("/tmp/" + std::string(200, 'x')).c_str(), 1);
    Daemon::NotifyServiceManager("READY=1");

    setenv("NOTIFY_SOCKET", "/nowhere/notify", 1);
    Daemon::NotifyServiceManager("READY=1");
    unsetenv("NOTIFY_SOCKET");
}

} // namespace
