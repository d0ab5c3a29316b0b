#pragma once

#include <cstdint>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace TestSupport {

inline sockaddr_in MakeLoopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// A program that listens on a port of 127.0.0.1 which was free, and would share it with whoever also
// wants to.
class LoopbackListener {
public:
    LoopbackListener() {
        sockaddr_in address = MakeLoopback(0);
        socklen_t length = sizeof(address);
        const int yes = 1;
        setsockopt(mFd, SOL_SOCKET, SO_REUSEPORT, &yes, sizeof(yes));
        if (bind(mFd, reinterpret_cast<const sockaddr*>(&address), length) != 0 || listen(mFd, 1) != 0 ||
            getsockname(mFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen");
        }
        mPort = ntohs(address.sin_port);
    }
    ~LoopbackListener() { close(mFd); }
    LoopbackListener(const LoopbackListener&) = delete;
    LoopbackListener& operator=(const LoopbackListener&) = delete;

    int Port() const { return mPort; }

private:
    const int mFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int mPort = 0;
};

// A port that nobody listened on just now.
inline int FindFreePort() {
    return LoopbackListener().Port();
}

} // namespace TestSupport
