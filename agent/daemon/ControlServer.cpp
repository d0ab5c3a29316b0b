#include "agent/daemon/ControlServer.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include <httplib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent/daemon/Exposition.h"
#include "agent/daemon/Metrics.h"
#include "agent/daemon/Modules.h"
#include "agent/daemon/ServerLoop.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

enum HttpStatus : int {
    HTTP_BAD_REQUEST = 400,
    HTTP_NOT_FOUND = 404,
    HTTP_CONFLICT = 409,
    HTTP_TOO_LARGE = 413,
    HTTP_UNPROCESSABLE = 422,
    HTTP_INTERNAL_ERROR = 500,
};

// Requests that are answered at the same time. A delivery holds one for as long as it lasts, so a few
// are left for those who only ask.
constexpr std::size_t THREADS = 8;

// How long a peer may wait with its request.
constexpr time_t IDLE_SECONDS = 1;

void Answer(httplib::Response& response, const Json::Value& value) {
    response.set_content(SDK::JsonUtils::JsonToString(value) + "\n", "application/json");
}

void Refuse(httplib::Response& response, HttpStatus status, const std::string& reason) {
    Json::Value value(Json::objectValue);
    value["error"] = reason;
    response.status = status;
    Answer(response, value);
}

// An inspector's answer, which may be that it has none.
void AnswerOrRefuse(httplib::Response& response, const Json::Value& answer) {
    if (answer.isMember("error")) {
        Refuse(response, HTTP_CONFLICT, SDK::JsonUtils::GetStringValue(answer, "error", "no answer"));
    } else {
        Answer(response, answer);
    }
}

void AnswerOutcome(httplib::Response& response, const Deliveries::Outcome& outcome) {
    if (!outcome.accepted) {
        Refuse(response, HTTP_UNPROCESSABLE, outcome.reason);
        return;
    }
    Json::Value value(Json::objectValue);
    value["accepted"] = true;
    value["notes"] = Json::Value(Json::arrayValue);
    for (const std::string& note : outcome.notes) {
        value["notes"].append(note);
    }
    Answer(response, value);
}

// Reads the whole body whatever its content type. False when it broke off or is above the limit; the
// library has then chosen the answer.
bool ReadBody(const httplib::ContentReader& reader, std::string& body) {
    return reader([&body](const char* data, std::size_t length) {
        body.append(data, length);
        return true;
    });
}

// Copies the parameter into the question, if there is one. False when it is not a whole number of at
// least 0.
bool CopyNumber(const httplib::Request& request, const char* name, Json::Value& question) {
    if (!request.has_param(name)) {
        return true;
    }
    const std::string text = request.get_param_value(name);
    Json::Int64 number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < 0) {
        return false;
    }
    question[name] = number;
    return true;
}

void AnswerReports(const Framework::Engine& engine, const httplib::Request& request, httplib::Response& response) {
    Json::Value question(Json::objectValue);
    question["query"] = "reports";
    for (const char* name : {"since", "after", "limit"}) {
        if (!CopyNumber(request, name, question)) {
            Refuse(response, HTTP_BAD_REQUEST, std::string(name) + " is not a whole number of at least 0");
            return;
        }
    }
    question["newest_first"] = request.has_param("newest_first");
    if (request.has_param("type")) {
        question["type"] = request.get_param_value("type");
    }
    AnswerOrRefuse(response, engine.Ask(REPORTS_MODULE, question));
}

void AnswerTrust(const Framework::Engine& engine, const httplib::Request& request, httplib::Response& response) {
    const std::string list = request.has_param("list") ? request.get_param_value("list") : "local";
    if (list != "local" && list != "server" && list != "os" && list != "service") {
        Refuse(response, HTTP_BAD_REQUEST, "unknown list [" + list + "]: local, server, os and service there are");
        return;
    }
    Json::Value question(Json::objectValue);
    question["query"] = "trust_list";
    question["list"] = list;
    AnswerOrRefuse(response, engine.Ask(WHITELIST_MODULE, question));
}

void AnswerVerdict(const Framework::Engine& engine, const httplib::Request& request, httplib::Response& response) {
    if (!request.has_param("path")) {
        Refuse(response, HTTP_BAD_REQUEST, "which image? the parameter [path] is missing");
        return;
    }
    Json::Value question(Json::objectValue);
    question["query"] = "verdict";
    question["path"] = request.get_param_value("path");
    AnswerOrRefuse(response, engine.Ask(WHITELIST_MODULE, question));
}

void AnswerExplanation(const Framework::Engine& engine, const httplib::Request& request, httplib::Response& response) {
    Json::Value question(Json::objectValue);
    question["query"] = "explain";
    if (request.has_param("path") == request.has_param("pid")) {
        Refuse(response, HTTP_BAD_REQUEST, "which program? either the parameter [path] or [pid] is needed");
        return;
    }
    if (!CopyNumber(request, "pid", question)) {
        Refuse(response, HTTP_BAD_REQUEST, "[" + request.get_param_value("pid") + "] is no process id");
        return;
    }
    if (request.has_param("path")) {
        question["path"] = request.get_param_value("path");
    }
    AnswerOrRefuse(response, engine.Ask(WHITELIST_MODULE, question));
}

void TakeExplanation(const Framework::Engine& engine, const httplib::ContentReader& reader,
                     httplib::Response& response) {
    std::string body;
    if (!ReadBody(reader, body)) {
        return;
    }
    Json::Value question;
    if (SDK::JsonUtils::ParseJsonStr(body, question) != 0 || !question.isObject() || question.size() != 1 ||
        !question["path"].isString()) {
        Refuse(response, HTTP_BAD_REQUEST, "which program? {\"path\": TEXT} is needed");
        return;
    }
    question["query"] = "explain";
    AnswerOrRefuse(response, engine.Ask(WHITELIST_MODULE, question));
}

void AnswerAlertSummary(const Framework::Engine& engine, const httplib::Request& request, httplib::Response& response) {
    Json::Value question(Json::objectValue);
    question["query"] = "alert_summary";
    if (!CopyNumber(request, "since", question)) {
        Refuse(response, HTTP_BAD_REQUEST, "since is not a whole number of at least 0");
        return;
    }
    AnswerOrRefuse(response, engine.Ask(REPORTS_MODULE, question));
}

void AnswerPolicy(const Deliveries& deliveries, httplib::Response& response) {
    const Json::Value policy = deliveries.GetPolicy();
    if (policy.isNull()) {
        Refuse(response, HTTP_NOT_FOUND, "no policy has been accepted yet");
    } else {
        Answer(response, policy);
    }
}

void TakePolicy(Deliveries& deliveries, const httplib::ContentReader& reader, httplib::Response& response) {
    std::string body;
    if (!ReadBody(reader, body)) {
        return;
    }
    if (body.empty()) {
        Refuse(response, HTTP_BAD_REQUEST, "the policy document is empty");
        return;
    }
    AnswerOutcome(response, deliveries.ApplyPolicy(body));
}

void TakeCommand(Deliveries& deliveries, const std::string& key, const httplib::ContentReader& reader,
                 httplib::Response& response) {
    std::string body;
    if (ReadBody(reader, body)) {
        AnswerOutcome(response, deliveries.RunCommand(key, body));
    }
}

std::string DescribeStatus(int status) {
    switch (status) {
    case HTTP_NOT_FOUND:
        return "no such resource or method";
    case HTTP_TOO_LARGE:
        return "the document is larger than " + std::to_string(ControlServer::MAX_BODY_BYTES) + " bytes";
    default:
        return "the request cannot be answered (status " + std::to_string(status) + ")";
    }
}

// For answers that the library made up itself.
void DescribeError(httplib::Response& response) {
    if (response.body.empty()) {
        Json::Value value(Json::objectValue);
        value["error"] = DescribeStatus(response.status);
        Answer(response, value);
    }
}

void DescribeException(httplib::Response& response, const std::exception_ptr& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& error) {
        moduleLog.Error("exception while answering a request: %s", error.what());
        Refuse(response, HTTP_INTERNAL_ERROR, error.what());
    } catch (...) {
        Refuse(response, HTTP_INTERNAL_ERROR, "unknown fault");
    }
}

} // namespace

struct ControlServer::Http {
    httplib::Server server;
    ServerLoop loop{server};
    std::string socketPath;
};

ControlServer::ControlServer(const Framework::Engine& engine, Deliveries& deliveries, const Status& status,
                             std::chrono::milliseconds silence)
    : mHttp(std::make_unique<Http>()) {
    using httplib::Request;
    using httplib::Response;
    httplib::Server& server = mHttp->server;
    server.set_address_family(AF_UNIX);
    server.set_payload_max_length(MAX_BODY_BYTES);
    server.set_keep_alive_max_count(1);
    server.set_keep_alive_timeout(IDLE_SECONDS);
    server.set_read_timeout(silence);
    server.set_write_timeout(SILENCE);
    server.new_task_queue = [] { return new httplib::ThreadPool(THREADS); };

    server.Get("/status", [&status](const Request&, Response& response) { Answer(response, status.Collect()); });
    server.Get("/metrics", [&status](const Request&, Response& response) {
        response.set_content(RenderMetrics(status.Collect()), Exposition::CONTENT_TYPE);
    });
    server.Get("/policy", [&deliveries](const Request&, Response& response) { AnswerPolicy(deliveries, response); });
    server.Post("/policy", [&deliveries](const Request&, Response& response, const httplib::ContentReader& reader) {
        TakePolicy(deliveries, reader, response);
    });
    server.Post("/command/([^/]+)",
                [&deliveries](const Request& request, Response& response, const httplib::ContentReader& reader) {
                    TakeCommand(deliveries, request.matches[1], reader, response);
                });
    server.Get("/trust",
               [&engine](const Request& request, Response& response) { AnswerTrust(engine, request, response); });
    server.Get("/verdict",
               [&engine](const Request& request, Response& response) { AnswerVerdict(engine, request, response); });
    server.Get("/reports",
               [&engine](const Request& request, Response& response) { AnswerReports(engine, request, response); });
    server.Get("/reports/summary", [&engine](const Request& request, Response& response) {
        AnswerAlertSummary(engine, request, response);
    });
    server.Get("/explain",
               [&engine](const Request& request, Response& response) { AnswerExplanation(engine, request, response); });
    server.Post("/explain", [&engine](const Request&, Response& response, const httplib::ContentReader& reader) {
        TakeExplanation(engine, reader, response);
    });
    server.set_error_handler([](const Request&, Response& response) { DescribeError(response); });
    server.set_exception_handler([](const Request&, Response& response, const std::exception_ptr& exception) {
        DescribeException(response, exception);
    });
}

ControlServer::~ControlServer() {
    Stop();
}

bool ControlServer::Start(const std::string& socketPath, std::string& reason) {
    if (socketPath.size() >= sizeof(sockaddr_un::sun_path)) {
        reason = "the path [" + socketPath + "] is too long for a socket";
        return false;
    }
    unlink(socketPath.c_str());
    // The library wants a port even where there are none.
    constexpr int ANY_PORT = 80;
    const mode_t oldMask = umask(0177);
    const bool bound = mHttp->server.bind_to_port(socketPath, ANY_PORT);
    const int error = errno;
    umask(oldMask);
    if (!bound) {
        reason = "cannot listen on [" + socketPath + "]: " + std::strerror(error);
        return false;
    }
    mHttp->socketPath = socketPath;
    mHttp->loop.Start();
    return true;
}

void ControlServer::Stop() {
    if (mHttp->loop.Stop()) {
        unlink(mHttp->socketPath.c_str());
    }
}

} // namespace Daemon
