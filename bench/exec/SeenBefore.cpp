#include <array>
#include <thread>

#include <unistd.h>

#include "exec/BareLoop.h"
#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/TempCgroup.h"

namespace Bench {

namespace {

constexpr int BLOCKS = 5;
constexpr int STARTS = 40; // in a block
constexpr std::size_t IMAGE_BYTES = 10 << 20;
constexpr std::chrono::milliseconds LIFETIME{3};
// A file that has been changed less than 3 s ago is hashed every time.
constexpr std::chrono::milliseconds UNCHANGED_FOR{3300};

// The sum of the times, in microseconds, from the kernel's event to the image's path in hand.
double MeasureFloor(const std::string& cgroup, const std::string& program) {
    std::atomic<std::uint64_t> sumNs{0};
    Starter starter(cgroup);
    {
        const BareLoop loop([&](int pid, std::uint64_t timestampNs) {
            std::array<char, 4096> image{};
            const std::string link = "/proc/" + std::to_string(pid) + "/exe";
            const bool read = readlink(link.c_str(), image.data(), image.size()) > 0;
            if (read && pid == starter.GetPid()) {
                sumNs.fetch_add(NowNs() - timestampNs);
            }
        });
        starter.RunFor({program}, STARTS, LIFETIME);
    }
    return static_cast<double>(sumNs.load()) / 1000;
}

} // namespace

void MeasureSeenBefore(unsigned int round) {
    const TestSupport::TempDir work;
    const std::string program = CopyProgram(Stays(), work / "big", IMAGE_BYTES);
    Subject subject({program}, false);
    std::this_thread::sleep_for(UNCHANGED_FOR);
    Starter starter(subject.Cgroup());
    starter.RunFor({program}, 1, UNCHANGED_FOR / 10);
    double floorUs = 0;
    double productUs = 0;
    for (unsigned int block = 0; block < 2 * BLOCKS; ++block) {
        if ((block + round) % 2 == 0) {
            const TestSupport::TempCgroup cgroup;
            subject.Pause();
            floorUs += MeasureFloor(cgroup.Path(), program);
            subject.Resume();
        } else {
            const auto before = subject.ReadVerdicts();
            starter.RunFor({program}, STARTS, LIFETIME);
            const auto after = subject.ReadVerdicts();
            productUs += (after.seconds - before.seconds) * 1e6 * STARTS / (after.count - before.count);
        }
    }
    constexpr int ALL = BLOCKS * STARTS;
    const std::string figure = "verdict on 10 MiB seen before, mean";
    Report({figure, "", BARE_LOOP, floorUs / ALL, "us", {}});
    Report({figure, "", PRODUCT, productUs / ALL, "us", {AtMost(3, BARE_LOOP)}});
}

} // namespace Bench
