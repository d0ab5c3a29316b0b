#include <array>
#include <functional>
#include <memory>
#include <thread>

#include <unistd.h>

#include "exec/BareLoop.h"
#include "exec/Fapolicyd.h"
#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/TempCgroup.h"

namespace Bench {

namespace {

constexpr int STARTS = 2000;
constexpr int WARM_UP = 200;
constexpr const char* WITHOUT = "without";

struct Program {
    std::string name;
    std::string path;
};

double PerSecond(std::chrono::nanoseconds time) {
    return STARTS / std::chrono::duration<double>(time).count();
}

// What one row of starts came to: how fast it went, and what it cost whoever watched.
struct Row {
    double startsPerSecond = 0;
    double watcherUsPerStart = 0;
};

// The watcher has handled what it was told some time after the last start.
constexpr std::chrono::milliseconds AFTERMATH{300};

Row MeasureRow(const std::string& cgroup, const std::string& program, const std::function<std::uint64_t()>& watcherNs) {
    RunInARow(cgroup, program, WARM_UP);
    std::this_thread::sleep_for(AFTERMATH);
    const std::uint64_t before = watcherNs();
    const auto took = RunInARow(cgroup, program, STARTS);
    std::this_thread::sleep_for(AFTERMATH);
    return {PerSecond(took), static_cast<double>(watcherNs() - before) / 1000 / STARTS};
}

void ReportRow(const std::string& kase, const std::string& series, const Row& row, bool isProduct) {
    const std::vector<Goal> rate = isProduct ? std::vector{AtLeast(0.97, WITHOUT)} : std::vector<Goal>{};
    Report({"starts of trusted programs", kase, series, row.startsPerSecond, "1/s", rate});
    if (series != WITHOUT) {
        const std::vector<Goal> cost =
            isProduct && Fapolicyd::IsInstalled() ? std::vector{AtMost(0.5, "fapolicyd, sha256")} : std::vector<Goal>{};
        Report({"CPU of the watcher for each start", kase, series, row.watcherUsPerStart, "us", cost});
    }
}

void MeasureWithout(const Program& program) {
    const TestSupport::TempCgroup cgroup;
    ReportRow(program.name, WITHOUT, MeasureRow(cgroup.Path(), program.path, [] { return 0U; }), false);
}

void MeasureProduct(const std::vector<Program>& programs) {
    const Subject subject({programs[0].path, programs[1].path}, false);
    for (const Program& program : programs) {
        ReportRow(program.name, PRODUCT,
                  MeasureRow(subject.Cgroup(), program.path, [&] { return subject.ReadCpuNs(); }), true);
    }
}

// The least that a watcher costs who is told of all three kinds of event and judges on a second thread: it
// receives them, hands the execs over, and asks which image runs. It is in this process, whose other thread
// waits.
void MeasureBareLoop(const Program& program) {
    const TestSupport::TempCgroup cgroup;
    const SecondThread judge([](int pid) {
        std::array<char, 4096> image{};
        const std::string link = "/proc/" + std::to_string(pid) + "/exe";
        static_cast<void>(readlink(link.c_str(), image.data(), image.size()) < 0);
    });
    const BareLoop reader([&](int pid, std::uint64_t) { judge.Tell(pid); }, BareLoop::Kinds::ForksExecsAndExits);
    const Row row = MeasureRow(cgroup.Path(), program.path, [] { return ReadCpuNs(getpid()); });
    ReportRow(program.name, "bare loop, three kinds, two threads", row, false);
}

void MeasurePeer(const std::string& integrity, const std::vector<Program>& programs) {
    const TestSupport::TempCgroup cgroup;
    const Fapolicyd peer(integrity, {programs[0].path, programs[1].path});
    for (const Program& program : programs) {
        const Row row = MeasureRow(cgroup.Path(), peer.PathOf(program.path), [&] { return peer.ReadCpuNs(); });
        ReportRow(program.name, "fapolicyd, " + integrity, row, false);
    }
}

} // namespace

void MeasureTrusted(unsigned int round) {
    const std::vector<Program> programs{{"tiny static", Exits()}, {"dynamic", "/usr/bin/true"}};
    std::vector<std::function<void()>> series{
        [&] {
            for (const Program& program : programs) {
                MeasureWithout(program);
            }
        },
        [&] {
            for (const Program& program : programs) {
                MeasureBareLoop(program);
            }
        },
        [&] { MeasureProduct(programs); },
    };
    if (Fapolicyd::IsInstalled()) {
        for (const char* integrity : {"none", "size", "sha256"}) {
            series.emplace_back([&programs, integrity] { MeasurePeer(integrity, programs); });
        }
    }
    for (std::size_t i = 0; i < series.size(); ++i) {
        series[(i + round) % series.size()]();
    }
}

} // namespace Bench
