#pragma once

#include <atomic>
#include <thread>

namespace httplib {
class Server;
}

namespace Daemon {

// The thread on which a server that has been bound takes connections.
class ServerLoop {
public:
    // The server outlives this.
    explicit ServerLoop(httplib::Server& server) : mServer(server) {}
    ~ServerLoop() { Stop(); }
    ServerLoop(const ServerLoop&) = delete;
    ServerLoop& operator=(const ServerLoop&) = delete;

    // Called once.
    void Start();

    // Takes no more connections and waits for the requests under way. False when it had not been started
    // or is stopped already.
    bool Stop();

private:
    httplib::Server& mServer;
    std::thread mThread;
    std::atomic<bool> mEnded{false};
};

} // namespace Daemon
