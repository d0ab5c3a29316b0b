#include <csignal>
#include <fstream>
#include <map>
#include <stdexcept>

#include <unistd.h>

#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/WaitFor.h"

namespace Bench {

namespace {

constexpr int STARTS = 1000;

// Starts the program so often, at once. They stay.
void Burst(const std::string& program, const SharedMemory& last) {
    std::string path = program;
    for (int i = 0; i < STARTS; ++i) {
        const pid_t pid = vfork();
        if (pid == 0) {
            std::array<char*, 2> arguments{path.data(), nullptr};
            execv(path.c_str(), arguments.data());
            _exit(1);
        }
    }
    last->execNs.store(NowNs());
}

// How many of the programs were not alerted exactly once.
int CountWrong(Subject& subject, const std::string& program) {
    std::map<int, int> alerts;
    for (const Json::Value& alert : subject.Agent().Alerts()) {
        const Json::Value& process = alert["process_info"];
        alerts[process["process_path"].asString() == program ? process["process_pid"].asInt() : 0]++;
    }
    alerts.erase(0);
    int right = 0;
    int others = 0;
    for (const auto& [pid, count] : alerts) {
        (count == 1 ? right : others)++;
    }
    return STARTS - right + others;
}

} // namespace

void MeasureBurst(unsigned int /*round*/) {
    Subject subject({}, false);
    const std::string program = CopyProgram(Stays(), subject.Agent().Work() / "unknown");
    const SharedMemory last;
    const auto before = subject.Agent().Status()["alerts"].asInt64();
    // The starter is the parent of all and has nothing to wait for; it ends, and they stay.
    Await(ForkInto(subject.Cgroup(), [&] { Burst(program, last); }));
    const bool stored =
        TestSupport::WaitFor([&] { return subject.Agent().Status()["alerts"].asInt64() >= before + STARTS; });
    const double seconds = static_cast<double>(NowNs() - last->execNs.load()) / 1e9;
    if (!stored) {
        throw std::runtime_error("the burst's alerts do not become durable");
    }
    Report({"burst of 1,000 untrusted programs", "until all alerts are durable", PRODUCT, seconds, "s", {AtMost(2)}});
    Report({"burst of 1,000 untrusted programs: not alerted exactly once",
            "",
            PRODUCT,
            static_cast<double>(CountWrong(subject, program)),
            "",
            {AtMost(0)}});
}

} // namespace Bench
