#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Daemon {

// Serves the metrics to whoever may connect to a TCP port: GET /metrics, and nothing else (404 another
// path, 405 another method).
//
// The port is open to every user of the machine, so nobody can keep it busy: a connection is one request
// and is over after a time, whatever its peer does; four are answered at a time, and a few more wait in
// the kernel.
class MetricsServer {
public:
    static constexpr std::chrono::milliseconds CONNECTION_TIME{2000};

    // `render` makes the text; called on the server's threads, several at a time. `connectionTime` is how
    // long a connection lasts at most.
    explicit MetricsServer(const std::function<std::string()>& render,
                           std::chrono::milliseconds connectionTime = CONNECTION_TIME);
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

    // Binds the port and answers on threads of its own until Stop. False with the reason when it cannot
    // be bound: another socket that listens on it is never joined. Called once.
    bool Start(const std::string& address, int port, std::string& reason);

    // Takes no more connections and waits for those under way, which are over soon.
    void Stop();

private:
    struct Http;
    const std::unique_ptr<Http> mHttp;
};

} // namespace Daemon
