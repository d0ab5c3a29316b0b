#include "exec/Subject.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <httplib.h>
#include <sys/socket.h>

#include "support/WaitFor.h"

namespace Bench {

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds SETTLE{300};

double ReadSample(const std::string& text, const std::string& name) {
    const std::size_t at = text.find("\n" + name + " ");
    return at == std::string::npos ? 0 : std::stod(text.substr(at + name.size() + 2));
}

} // namespace

Subject::Subject(const std::vector<std::string>& trusted, bool block) {
    mAgent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + mAgent.Scope().Name() + R"("}})");
    SystemTest::Agent::Learned learned;
    learned.programs = trusted;
    SystemTest::PolicyOptions options;
    options.block = block;
    mAgent.MakeDetecting(learned, options);
    std::this_thread::sleep_for(SETTLE);
}

void Subject::Pause() const {
    kill(mAgent.GetPid(), SIGSTOP);
}

void Subject::Resume() const {
    kill(mAgent.GetPid(), SIGCONT);
    std::this_thread::sleep_for(SETTLE);
}

std::int64_t Subject::Count(const std::string& counter) const {
    return mAgent.Status()["counters"][counter].asInt64();
}

void Subject::AwaitJudged() const {
    for (std::int64_t last = -1, judged = 0; judged != last;) {
        last = judged;
        std::this_thread::sleep_for(SETTLE);
        judged = Count("events.judged");
    }
}

Subject::Verdicts Subject::ReadVerdicts() const {
    constexpr int ANY_PORT = 80;
    httplib::Client client(mAgent.Root() / "run/agent.sock", ANY_PORT);
    client.set_address_family(AF_UNIX);
    const httplib::Result answer = client.Get("/metrics");
    if (!answer) {
        throw std::runtime_error("the agent does not show its metrics");
    }
    const std::string name = "corvalent_event_verdict_seconds_";
    return {ReadSample(answer->body, name + R"(count{event="exec"})"),
            ReadSample(answer->body, name + R"(sum{event="exec"})")};
}

std::uint64_t Subject::ReadCpuNs() const {
    return Bench::ReadCpuNs(mAgent.GetPid());
}

std::uint64_t ReadCpuNs(int pid) {
    std::uint64_t sum = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::uint64_t runNs = 0;
        std::ifstream(task.path() / "schedstat") >> runNs;
        sum += runNs;
    }
    return sum;
}

std::string CopyProgram(const std::string& original, const std::string& path, std::size_t bytes) {
    fs::copy_file(original, path, fs::copy_options::overwrite_existing);
    std::ofstream(path, std::ios::app) << path;
    if (bytes > fs::file_size(path)) {
        fs::resize_file(path, bytes);
    }
    return path;
}

std::string Exits() {
    return BENCH_PROGRAMS "/exits";
}

std::string Stays() {
    return BENCH_PROGRAMS "/stays";
}

} // namespace Bench
