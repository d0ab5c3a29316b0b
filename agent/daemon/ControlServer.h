#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "agent/daemon/Deliveries.h"
#include "agent/daemon/Status.h"
#include "framework/Engine.h"

namespace Daemon {

// What an operator talks to: HTTP/1.1 and JSON over a Unix socket that only the daemon's own user may
// connect to (mode 0600).
//
//   GET  /status                                    Status
//   GET  /metrics                                   Metrics, the one answer that is not JSON
//   GET  /policy                                    {"hash", "accepted_time", "enabled", "document"}
//   POST /policy            a feature policy        {"accepted": true, "notes": [TEXT…]}
//   POST /command/KEY       the command's text      {"accepted": true, "notes": [TEXT…]}
//   GET  /trust?list=       local, server, os or service (default local)
//                                                   {"process_info": [ENTRY…]}
//   GET  /verdict?path=                             how the whitelist module would judge that image
//   GET  /explain?path= or ?pid=                    everything that module's verdict rests on
//   POST /explain           {"path": TEXT}          the same for a path that is too long for a query
//   GET  /reports?type=&since=&after=&limit=        {"reports": [{"id", "time", "type", "data"}…]}
//   GET  /reports/summary?since=                    {"programs": [PROGRAM…], "complete"}: who was alerted
//                                                   about and not blocked
//
// Whatever fails is answered with {"error": TEXT} and a status: 400 a request that cannot be
// understood, 404 no such thing, 409 a module that cannot answer now, 413 a body above the limit, 422
// a delivery that was refused, 500 a fault of the agent's own.
class ControlServer {
public:
    // Trust and preset documents may be tens of megabytes.
    static constexpr std::size_t MAX_BODY_BYTES = 64U << 20U;

    // How long a peer may stay silent within a request. Peers are local; this also bounds how long a
    // stopped one can hold up the daemon's end.
    static constexpr std::chrono::milliseconds SILENCE{1000};

    // The first three outlive this.
    ControlServer(const Framework::Engine& engine, Deliveries& deliveries, const Status& status,
                  std::chrono::milliseconds silence = SILENCE);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Binds the socket, in place of one that a daemon which is gone left behind, and answers on
    // threads of its own until Stop. False with the reason when it cannot be bound. Called once.
    bool Start(const std::string& socketPath, std::string& reason);

    // Takes no more requests, waits for those under way and removes the socket.
    void Stop();

private:
    struct Http;
    const std::unique_ptr<Http> mHttp;
};

} // namespace Daemon
