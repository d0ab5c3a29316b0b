// The daemon's socket: a peer sends any bytes and falls silent. The engine behind it has the real whitelist module and
// the real history of reports, so a request that happens to be a policy or a command is carried out.

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "SpecifiedFileAudit.h"
#include "WhitelistInspector.h"
#include "WhitelistModule.h"
#include "agent/daemon/ControlServer.h"
#include "agent/daemon/Deliveries.h"
#include "agent/daemon/Status.h"
#include "fuzz/Fuzz.h"
#include "sdk/JsonUtils.h"

namespace {

constexpr int ANSWER_DEADLINE_MS = 20000;

// All that the peer has to say is there at once.
constexpr std::chrono::milliseconds SILENCE{20};

struct Agent {
    Agent() {
        // Before this is complete, so that they outlive the tasks.
        Engine::ConfigManager::Instance();
        Engine::ProcessManager::Instance();
        Engine::SpecifiedFileAudit::Instance();
        std::string reason;
        Fuzz::Require(engine.LoadModule(DATA_COMM_MODULE, reason), "the history of reports is there", reason);
        engine.AddModule(new Engine::WhitelistModule, new Engine::WhitelistInspector);
        Fuzz::Require(engine.InitModules() == 0, "the modules start");
        deliveries = std::make_unique<Daemon::Deliveries>(engine, root.Path() + "/conf/");
        status = std::make_unique<Daemon::Status>(engine, *deliveries);
        server = std::make_unique<Daemon::ControlServer>(engine, *deliveries, *status, SILENCE);
        Fuzz::Require(server->Start(socketPath, reason), "the socket is there", reason);
    }
    ~Agent() {
        deliveries->Stop();
        server.reset();
        status.reset();
        deliveries.reset();
        engine.UnInitModules();
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    const TestSupport::TempRoot root{Fuzz::FolderForFiles()};
    const std::string socketPath = root / "run/agent.sock";
    Framework::Engine engine;
    const Fuzz::LogCheck log; // behind the engine, which leads all loggers to the console
    std::unique_ptr<Daemon::Deliveries> deliveries;
    std::unique_ptr<Daemon::Status> status;
    std::unique_ptr<Daemon::ControlServer> server;
};

SDK::FileDescriptor Connect(const std::string& path) {
    SDK::FileDescriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    Fuzz::Require(connect(peer.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
                  "the server takes connections");
    return peer;
}

// A signal interrupts poll(2): the fuzzer has an alarm.
bool AwaitBytes(int peer) {
    pollfd readable{peer, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&readable, 1, ANSWER_DEADLINE_MS);
    } while (ready < 0 && errno == EINTR);
    return ready == 1;
}

std::string ReadAnswer(int peer) {
    std::string answer;
    char buffer[65536];
    for (;;) {
        Fuzz::Require(AwaitBytes(peer), "the server answers or hangs up in time");
        const ssize_t count = SDK::ReadRetrying(peer, buffer, sizeof buffer);
        if (count <= 0) {
            return answer;
        }
        answer.append(buffer, static_cast<std::size_t>(count));
    }
}

// What the server has to say to a peer that sends this and no more. The peer does not even end its half of the
// connection: the server would take it for gone.
std::string Ask(const std::string& path, const std::string& request) {
    const SDK::FileDescriptor peer = Connect(path);
    // A server that has heard enough may hang up before it has read all.
    static_cast<void>(send(peer.Get(), request.data(), request.size(), MSG_NOSIGNAL));
    return ReadAnswer(peer.Get());
}

struct Answer {
    int status = 0;
    std::string head;
    std::string body;

    bool Has(const char* header) const { return head.find(header) != std::string::npos; }
};

Answer Read(std::string text) {
    constexpr const char* END = "\r\n\r\n";
    constexpr const char* GO_ON = "HTTP/1.1 100 ";
    while (text.starts_with(GO_ON)) {
        text.erase(0, text.find(END) + std::strlen(END));
    }
    const std::size_t end = text.find(END);
    Fuzz::Require(text.starts_with("HTTP/1.1 ") && end != std::string::npos, "an answer is one of HTTP", text);
    return {std::atoi(text.c_str() + std::strlen("HTTP/1.1 ")), text.substr(0, end + 2),
            text.substr(end + std::strlen(END))};
}

bool Begins(const std::string& request, const char* method) {
    return request.starts_with(method);
}

// Whether a header of that name, in lower case, may be in the request.
bool Asks(std::string request, const char* header) {
    std::transform(request.begin(), request.end(), request.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return request.find(header) != std::string::npos;
}

void CheckAnswer(const std::string& request, const Answer& answer) {
    Fuzz::Require(answer.status >= 200 && answer.status < 600, "an answer has a status", answer.head);
    // A peer may ask for a part of an answer; the library gives it a part of any.
    const bool isPartOrCoded = Asks(request, "range") || answer.Has("Content-Encoding:");
    if (Begins(request, "HEAD ") || isPartOrCoded || !answer.Has("Content-Type: application/json")) {
        return;
    }
    Fuzz::Require(!answer.body.empty() && answer.body.find('\n') == answer.body.size() - 1, "an answer is one line",
                  answer.body);
    Json::Value value;
    Fuzz::Require(SDK::JsonUtils::ParseJsonStr(answer.body, value) == 0 && value.isObject(), "it is a JSON object",
                  answer.body);
    const bool saysWhy = !SDK::JsonUtils::GetStringValue(value, "error", "").empty();
    Fuzz::Require(saysWhy == (answer.status >= 400), "it says why exactly when it failed", answer.head + answer.body);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    static const Agent agent;
    if (size == 0) {
        return -1;
    }
    const std::string request = Fuzz::ToText(data, size);
    const Json::Value policyBefore = agent.deliveries->GetPolicy();

    const std::string text = Ask(agent.socketPath, request);

    std::optional<Answer> answer;
    if (!text.empty()) {
        answer = Read(text);
        CheckAnswer(request, *answer);
    }
    const bool mayHaveChanged = Begins(request, "POST ") && answer && answer->status == 200;
    Fuzz::Require(mayHaveChanged || agent.deliveries->GetPolicy() == policyBefore,
                  "only a delivery that was answered changes the policy in force");

    const Answer after = Read(Ask(agent.socketPath, "GET /nothing HTTP/1.1\r\n\r\n"));
    Fuzz::Require(after.status == 404, "the next peer is answered as ever", after.head);
    return 0;
}
