#include "ctl/Client.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

#include <httplib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ctl/Failure.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

constexpr time_t CONNECT_SECONDS = 5;

// While it lives, a daemon that goes away in the middle of a request is an error of the write and not
// the end of the program, as a closed pipe behind standard output is meant to be.
class BrokenPipeIgnored {
public:
    BrokenPipeIgnored() : mOld(std::signal(SIGPIPE, SIG_IGN)) {}
    ~BrokenPipeIgnored() { std::signal(SIGPIPE, mOld); }
    BrokenPipeIgnored(const BrokenPipeIgnored&) = delete;
    BrokenPipeIgnored& operator=(const BrokenPipeIgnored&) = delete;

private:
    void (*mOld)(int);
};

httplib::Client Connect(const std::string& socketPath, std::chrono::seconds answerWithin) {
    // The library wants a port even where there are none.
    constexpr int ANY_PORT = 80;
    httplib::Client client(socketPath, ANY_PORT);
    client.set_address_family(AF_UNIX);
    client.set_default_headers({{"Host", "localhost"}});
    client.set_connection_timeout(CONNECT_SECONDS);
    client.set_read_timeout(answerWithin);
    client.set_write_timeout(CONNECT_SECONDS);
    return client;
}

Json::Value ParseAnswer(const std::string& text) {
    Json::Value answer;
    if (SDK::JsonUtils::ParseJsonStr(text, answer) != 0) {
        throw Failure("the daemon's answer is not JSON");
    }
    return answer;
}

std::string ReadAnswer(const httplib::Response& response) {
    constexpr int HTTP_OK = 200;
    if (response.status != HTTP_OK) {
        throw Failure(SDK::JsonUtils::GetStringValue(ParseAnswer(response.body), "error",
                                                     "status " + std::to_string(response.status)));
    }
    return response.body;
}

// All but letters, digits and these marks.
std::string PercentEncode(const std::string& text, std::string_view unencodedMarks) {
    static constexpr std::array<char, 17> DIGITS = {"0123456789ABCDEF"};
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (std::isalnum(byte) != 0 || unencodedMarks.find(c) != std::string_view::npos) {
            encoded += c;
        } else {
            encoded += {'%', DIGITS[byte >> 4U], DIGITS[byte & 0xFU]};
        }
    }
    return encoded;
}

} // namespace

Client::Client(const std::string& root, std::chrono::seconds answerWithin)
    : mSocketPath(root + (root.ends_with("/") ? "" : "/") + "run/agent.sock"), mAnswerWithin(answerWithin) {}

Json::Value Client::Get(const std::string& path) const {
    return ParseAnswer(GetText(path));
}

std::string Client::GetText(const std::string& path) const {
    return Ask([&](httplib::Client& client) { return client.Get(path); });
}

Json::Value Client::Post(const std::string& path, const std::string& body) const {
    return ParseAnswer(Ask([&](httplib::Client& client) { return client.Post(path, body, "application/json"); }));
}

std::string Client::Ask(const std::function<httplib::Result(httplib::Client&)>& request) const {
    CheckDaemon();
    const BrokenPipeIgnored guard;
    httplib::Client client = Connect(mSocketPath, mAnswerWithin);
    const auto begin = std::chrono::steady_clock::now();
    const httplib::Result result = request(client);
    if (!result) {
        // A daemon that has gone away since is no daemon.
        CheckDaemon();
        if (std::chrono::steady_clock::now() - begin >= mAnswerWithin) {
            throw Failure("the daemon does not answer within " + std::to_string(mAnswerWithin.count()) + " s");
        }
        throw Failure("the daemon broke off the connection (" + httplib::to_string(result.error()) + ")");
    }
    return ReadAnswer(*result);
}

// The HTTP library does not say why a connection failed.
void Client::CheckDaemon() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (mSocketPath.size() >= sizeof(address.sun_path)) {
        throw Failure("the path [" + mSocketPath + "] is too long for a socket");
    }
    mSocketPath.copy(address.sun_path, mSocketPath.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    if (connected) {
        return;
    }
    if (error == ENOENT || error == ECONNREFUSED || error == ENOTDIR) {
        throw Failure("no daemon listens on [" + mSocketPath + "]: " + std::strerror(error), EXIT_NO_DAEMON);
    }
    throw Failure("cannot connect to [" + mSocketPath + "]: " + std::strerror(error));
}

std::string EncodeQuery(const std::string& text) {
    return PercentEncode(text, "-._~");
}

std::string EncodePath(const std::string& path) {
    return PercentEncode(path, "-._~/");
}

} // namespace Ctl
