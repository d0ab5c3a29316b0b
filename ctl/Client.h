#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <json/value.h>

namespace httplib {
class Client;
class Result;
} // namespace httplib

namespace Ctl {

// Talks to the daemon of one installation root over its control socket, one connection a request.
// Every operation throws Failure: with EXIT_NO_DAEMON when nobody listens, with the daemon's own
// reason when it refuses.
class Client {
public:
    // How long an answer may take at most.
    static constexpr std::chrono::seconds ANSWER_WITHIN{600};

    explicit Client(const std::string& root, std::chrono::seconds answerWithin = ANSWER_WITHIN);

    // `path` with its query, percent-encoded where needed (EncodeQuery).
    Json::Value Get(const std::string& path) const;

    // An answer that is not JSON.
    std::string GetText(const std::string& path) const;

    // Waits as long as the delivery takes.
    Json::Value Post(const std::string& path, const std::string& body) const;

private:
    std::string Ask(const std::function<httplib::Result(httplib::Client&)>& request) const;
    void CheckDaemon() const;

    const std::string mSocketPath;
    const std::chrono::seconds mAnswerWithin;
};

// The text as it may stand in a query (RFC 3986): all but letters, digits and "-._~" percent-encoded.
std::string EncodeQuery(const std::string& text);

// The same for a path in a URL, whose "/" stay.
std::string EncodePath(const std::string& path);

} // namespace Ctl
