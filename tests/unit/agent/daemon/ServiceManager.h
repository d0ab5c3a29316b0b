#pragma once

#include <array>
#include <cstddef>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace TestSupport {

// What a service manager listens on; an abstract socket is named with a leading "@".
class ServiceManager {
public:
    explicit ServiceManager(const std::string& name) : mFd(socket(AF_UNIX, SOCK_DGRAM, 0)) {
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
    ~ServiceManager() {
        unsetenv("NOTIFY_SOCKET");
        close(mFd);
    }
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // The next message, without waiting for it.
    std::string Received() const {
        std::array<char, 1024> text{};
        const ssize_t length = recv(mFd, text.data(), text.size(), MSG_DONTWAIT);
        return length < 0 ? "<nothing>" : std::string(text.data(), static_cast<std::size_t>(length));
    }

private:
    int mFd;
};

} // namespace TestSupport
