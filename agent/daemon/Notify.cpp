#include "agent/daemon/Notify.h"

#include <cstddef>
#include <cstdlib>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Daemon {

void NotifyServiceManager(const std::string& state) {
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string path = variable == nullptr ? "" : variable;
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0'; // an abstract socket
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    // Without waiting, so that a manager that reads nothing cannot hold up a start or a stop.
    sendto(fd, state.data(), state.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
           length);
    close(fd);
}

} // namespace Daemon
