#include <array>
#include <cstdlib>
#include <thread>

#include <unistd.h>

#include "exec/BareLoop.h"
#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/TempCgroup.h"

namespace Bench {

namespace {

constexpr int STARTERS = 2;
constexpr int STARTS = 20000; // of all starters together
constexpr const char* READABLE = "storm: images readable when judged";
constexpr std::chrono::seconds AFTERMATH{1};

void Blow(const std::string& cgroup) {
    std::array<std::thread, STARTERS> starters;
    for (std::thread& starter : starters) {
        starter = std::thread([&] { RunInARow(cgroup, Exits(), STARTS / STARTERS); });
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
}

void MeasureFloor() {
    const TestSupport::TempCgroup cgroup;
    std::atomic<int> read{0};
    const std::string ours = Exits();
    const BareLoop loop([&](int pid, std::uint64_t) {
        std::array<char, 4096> image{};
        const std::string link = "/proc/" + std::to_string(pid) + "/exe";
        const ssize_t length = readlink(link.c_str(), image.data(), image.size());
        if (length > 0 && ours == std::string_view(image.data(), static_cast<std::size_t>(length))) {
            read.fetch_add(1);
        }
    });
    Blow(cgroup.Path());
    std::this_thread::sleep_for(AFTERMATH);
    Report({READABLE, "", BARE_LOOP, 100.0 * read / STARTS, "%", {}});
    Report({"storm: losses",
            "overflows of the kernel's buffer",
            BARE_LOOP,
            static_cast<double>(loop.CountOverflows()),
            "",
            {}});
}

// Every image that can be read is asked a digest of, once.
std::int64_t CountDigests(const Subject& subject) {
    return subject.Count("digest.hit") + subject.Count("digest.miss");
}

void MeasureProduct() {
    const Subject subject({Exits()}, false);
    const std::int64_t execs = subject.Count("events.exec");
    const std::int64_t digests = CountDigests(subject);
    Blow(subject.Cgroup());
    subject.AwaitJudged();
    const auto report = [&](const std::string& kase, std::int64_t count) {
        Report({"storm: losses", kase, PRODUCT, static_cast<double>(count), "", {AtMost(0)}});
    };
    report("overflows of the kernel's buffer", subject.Count("events.overflow"));
    report("lost", subject.Count("events.lost"));
    // More than there were is as wrong as fewer.
    report("execs not counted", std::abs(STARTS - (subject.Count("events.exec") - execs)));
    const auto readable = static_cast<double>(CountDigests(subject) - digests);
    Report({READABLE, "", PRODUCT, 100.0 * readable / STARTS, "%", {}});
}

} // namespace

void MeasureStorm(unsigned int round) {
    if (round % 2 == 0) {
        MeasureFloor();
    }
    MeasureProduct();
    if (round % 2 != 0) {
        MeasureFloor();
    }
}

} // namespace Bench
