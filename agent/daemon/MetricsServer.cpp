#include "agent/daemon/MetricsServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <semaphore>

#include <httplib.h>
#include <poll.h>
#include <sys/socket.h>

#include "agent/daemon/Exposition.h"
#include "agent/daemon/ServerLoop.h"
#include "agent/sdk/FileDescriptor.h"
#include "sdk/ModuleLog.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

using Clock = std::chrono::steady_clock;

constexpr const char* PATH = "/metrics";

constexpr int HTTP_NOT_FOUND = 404;
constexpr int HTTP_METHOD_NOT_ALLOWED = 405;
constexpr int HTTP_INTERNAL_ERROR = 500;

constexpr std::ptrdiff_t CONNECTIONS = 4;

// A connection that is over at a fixed time. The library's own time-outs begin anew with every byte, so
// that a peer who sends one now and then holds a connection for hours.
class TimedStream : public httplib::Stream {
public:
    TimedStream(int fd, Clock::time_point end) : mFd(fd), mEnd(end) {}

    bool is_readable() const override { return mTaken < mFilled || WaitFor(POLLIN); }
    bool is_writable() const override { return WaitFor(POLLOUT); }

    // The library reads its lines byte by byte.
    ssize_t read(char* data, std::size_t size) override {
        if (mTaken == mFilled && !Fill()) {
            return -1;
        }
        const std::size_t count = std::min(size, mFilled - mTaken);
        std::copy_n(mBuffer.data() + mTaken, count, data);
        mTaken += count;
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* data, std::size_t size) override {
        ssize_t count = -1;
        while (count < 0 && WaitFor(POLLOUT)) {
            count = send(mFd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0 && errno != EAGAIN && errno != EINTR) {
                return -1;
            }
        }
        return count;
    }

    // Until the peer has closed its end: what it still sends would otherwise make the kernel reset the
    // connection, and take the answer from the peer that has not read it yet.
    void FinishWriting() {
        shutdown(mFd, SHUT_WR);
        while (Fill() && mFilled > 0) {
        }
    }

    // Nobody asks for the addresses.
    void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
    socket_t socket() const override { return mFd; }

private:
    // True at the end of the stream, too, with nothing in the buffer.
    bool Fill() {
        ssize_t count = -1;
        while (count < 0 && WaitFor(POLLIN)) {
            count = recv(mFd, mBuffer.data(), mBuffer.size(), MSG_DONTWAIT);
            if (count < 0 && errno != EAGAIN && errno != EINTR) {
                return false;
            }
        }
        mTaken = 0;
        mFilled = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
        return count >= 0;
    }

    bool WaitFor(short events) const {
        pollfd waited{mFd, events, 0};
        for (;;) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(mEnd - Clock::now());
            if (left.count() <= 0) {
                return false;
            }
            const int ready = poll(&waited, 1, static_cast<int>(left.count()));
            if (ready >= 0 || errno != EINTR) {
                return ready > 0;
            }
        }
    }

    const int mFd;
    const Clock::time_point mEnd;
    std::array<char, 2048> mBuffer{};
    std::size_t mTaken = 0;
    std::size_t mFilled = 0;
};

// Takes a connection only when a thread is free for it: one may wait for that, no queue of them grows.
class BoundedPool : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> work) override {
        mFree.acquire();
        mPool.enqueue([this, work = std::move(work)] {
            work();
            mFree.release();
        });
    }
    void shutdown() override { mPool.shutdown(); }

private:
    std::counting_semaphore<CONNECTIONS> mFree{CONNECTIONS};
    httplib::ThreadPool mPool{CONNECTIONS};
};

class Server : public httplib::Server {
public:
    explicit Server(std::chrono::milliseconds connectionTime) : mConnectionTime(connectionTime) {}

private:
    bool process_and_close_socket(socket_t fd) override {
        const SDK::FileDescriptor connection(fd);
        TimedStream stream(fd, Clock::now() + mConnectionTime);
        bool closed = false;
        const bool done = process_request(stream, true, closed, nullptr);
        stream.FinishWriting();
        return done;
    }

    const std::chrono::milliseconds mConnectionTime;
};

void Refuse(httplib::Response& response, int status, const std::string& text) {
    response.status = status;
    response.set_content(text + "\n", "text/plain; charset=utf-8");
}

httplib::Server::HandlerResponse RefuseAllElse(const httplib::Request& request, httplib::Response& response) {
    if (request.path != PATH) {
        Refuse(response, HTTP_NOT_FOUND, std::string("here is ") + PATH + " and nothing else");
    } else if (request.method != "GET") {
        response.set_header("Allow", "GET");
        Refuse(response, HTTP_METHOD_NOT_ALLOWED, "only GET");
    } else {
        return httplib::Server::HandlerResponse::Unhandled;
    }
    return httplib::Server::HandlerResponse::Handled;
}

void RefuseAfterException(httplib::Response& response, const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& error) {
        moduleLog.Error("exception while the metrics were written: %s", error.what());
    } catch (...) {
        moduleLog.Error("exception of an unknown type while the metrics were written");
    }
    Refuse(response, HTTP_INTERNAL_ERROR, "the metrics cannot be written, see the agent's log");
}

// The library would also set SO_REUSEPORT, with which two daemons would share a port without knowing. A
// port whose last connections have just ended is free, one that is listened on is not.
void SetSocketOptions(int fd) {
    const int yes = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
}

} // namespace

struct MetricsServer::Http {
    explicit Http(std::chrono::milliseconds connectionTime) : server(connectionTime) {}

    Server server;
    ServerLoop loop{server};
};

MetricsServer::MetricsServer(const std::function<std::string()>& render, std::chrono::milliseconds connectionTime)
    : mHttp(std::make_unique<Http>(connectionTime)) {
    using httplib::Request;
    using httplib::Response;
    Server& server = mHttp->server;
    server.set_socket_options(SetSocketOptions);
    server.new_task_queue = [] { return new BoundedPool; };
    server.set_pre_routing_handler(RefuseAllElse);
    server.Get(PATH, [render](const Request&, Response& response) {
        response.set_content(render(), Exposition::CONTENT_TYPE);
    });
    server.set_exception_handler([](const Request&, Response& response, const std::exception_ptr& exception) {
        RefuseAfterException(response, exception);
    });
}

MetricsServer::~MetricsServer() {
    Stop();
}

bool MetricsServer::Start(const std::string& address, int port, std::string& reason) {
    if (!mHttp->server.bind_to_port(address, port)) {
        const std::string cause = std::strerror(errno);
        reason = "cannot serve metrics on [" + address + "] port " + std::to_string(port) + ": " + cause;
        return false;
    }
    mHttp->loop.Start();
    moduleLog.Information("metrics are served on [%s] port %d", address, port);
    return true;
}

void MetricsServer::Stop() {
    mHttp->loop.Stop();
}

} // namespace Daemon
