#include <csignal>
#include <sys/types.h>

#include "exec/BareLoop.h"
#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/TempCgroup.h"

namespace Bench {

namespace {

constexpr int BLOCKS = 8;
constexpr int STARTS = 25; // in a block

struct Victim {
    std::string name;
    std::string program;
    std::vector<std::string> arguments;
};

double ToUs(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1000;
}

class KillFigure {
public:
    explicit KillFigure(const Victim& victim) : mVictim(victim) {}

    void Measure(unsigned int round) {
        for (unsigned int block = 0; block < 2 * BLOCKS; ++block) {
            if ((block + round) % 2 == 0) {
                MeasureFloor();
            } else {
                MeasureProduct();
            }
        }
        ReportShare("exec to SIGKILL, p50", 0.5, 1.5);
        ReportShare("exec to SIGKILL, p99", 0.99, 2);
    }

private:
    // The kill goes to what this very process has started, and to nothing else.
    void MeasureFloor() {
        mSubject.Pause();
        {
            Starter starter(mFloorGroup.Path());
            const BareLoop loop([&](int pid, std::uint64_t) {
                if (pid == starter.GetPid()) {
                    kill(pid, SIGKILL);
                }
            });
            Run(starter, mFloor);
        }
        mSubject.Resume();
    }

    void MeasureProduct() {
        Starter starter(mSubject.Cgroup());
        Run(starter, mProduct);
    }

    // Every program is new to the agent, and unknown.
    void Run(Starter& starter, std::vector<double>& times) {
        std::vector<Command> commands;
        for (int i = 0; i < STARTS; ++i) {
            const std::string name = "victim-" + std::to_string(++mCounter);
            Command command{CopyProgram(mVictim.program, mSubject.Agent().Work() / name)};
            command.insert(command.end(), mVictim.arguments.begin(), mVictim.arguments.end());
            commands.push_back(std::move(command));
        }
        for (const std::chrono::nanoseconds took : starter.RunUntilKilled(commands)) {
            times.push_back(ToUs(took));
        }
    }

    void ReportShare(const std::string& figure, double share, double limit) const {
        Report({figure, mVictim.name, BARE_LOOP, Percentile(mFloor, share), "us", {}});
        Report({figure, mVictim.name, PRODUCT, Percentile(mProduct, share), "us", {AtMost(limit, BARE_LOOP)}});
    }

    const Victim& mVictim;
    Subject mSubject{{}, true};
    TestSupport::TempCgroup mFloorGroup;
    std::vector<double> mFloor;
    std::vector<double> mProduct;
    int mCounter = 0;
};

} // namespace

void MeasureKill(unsigned int round) {
    KillFigure({"tiny static", Stays(), {}}).Measure(round);
    KillFigure({"dynamic", "/usr/bin/sleep", {"60"}}).Measure(round);
}

} // namespace Bench
