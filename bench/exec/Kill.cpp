#include <csignal>
#include <functional>

#include "exec/BareLoop.h"
#include "exec/Figures.h"
#include "exec/Starter.h"
#include "exec/Subject.h"
#include "support/TempCgroup.h"

namespace Bench {

namespace {

constexpr int BLOCKS = 8;
constexpr int STARTS = 25; // in a block
// So that nobody is still busy with the program before.
constexpr std::chrono::milliseconds PAUSE{10};
constexpr std::chrono::milliseconds BACK_TO_BACK{0};

struct Victim {
    std::string name;
    std::string program;
    std::vector<std::string> arguments;
    std::chrono::milliseconds pause;
};

double ToUs(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1000;
}

class KillFigure {
public:
    explicit KillFigure(const Victim& victim) : mVictim(victim) {}

    void Measure(unsigned int round) {
        for (unsigned int block = 0; block < 3 * BLOCKS; ++block) {
            switch ((block + round) % 3) {
            case 0:
                MeasureFloor();
                break;
            case 1:
                MeasureTwoThreads();
                break;
            default:
                MeasureProduct();
                break;
            }
        }
        ReportShare("exec to SIGKILL, p50", 0.5, 1.5);
        ReportShare("exec to SIGKILL, p99", 0.99, 2);
    }

private:
    // The kill goes to what this very process has started, and to nothing else.
    void MeasureFloor() {
        RunBeside([](int pid) { kill(pid, SIGKILL); }, mFloor);
    }

    void MeasureTwoThreads() {
        const SecondThread killer([](int pid) { kill(pid, SIGKILL); });
        RunBeside([&](int pid) { killer.Tell(pid); }, mTwoThreads);
    }

    void RunBeside(const std::function<void(int pid)>& onExec, std::vector<double>& times) {
        mSubject.Pause();
        {
            Starter starter(mFloorGroup.Path());
            const BareLoop loop([&](int pid, std::uint64_t) {
                if (pid == starter.GetPid()) {
                    onExec(pid);
                }
            });
            Run(starter, times);
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
        for (const std::chrono::nanoseconds took : starter.RunUntilKilled(commands, mVictim.pause)) {
            times.push_back(ToUs(took));
        }
    }

    void ReportShare(const std::string& figure, double share, double limit) const {
        Report({figure, mVictim.name, BARE_LOOP, Percentile(mFloor, share), "us", {}});
        Report({figure, mVictim.name, "bare loop, two threads", Percentile(mTwoThreads, share), "us", {}});
        const std::vector<Goal> goals =
            mVictim.pause == BACK_TO_BACK ? std::vector<Goal>{} : std::vector{AtMost(limit, BARE_LOOP)};
        Report({figure, mVictim.name, PRODUCT, Percentile(mProduct, share), "us", goals});
    }

    const Victim& mVictim;
    Subject mSubject{{}, true};
    TestSupport::TempCgroup mFloorGroup;
    std::vector<double> mFloor;
    std::vector<double> mTwoThreads;
    std::vector<double> mProduct;
    int mCounter = 0;
};

} // namespace

void MeasureKill(unsigned int round) {
    const std::string dynamic = "/usr/bin/sleep";
    KillFigure({"tiny static", Stays(), {}, PAUSE}).Measure(round);
    KillFigure({"dynamic", dynamic, {"60"}, PAUSE}).Measure(round);
    KillFigure({"tiny static, back to back", Stays(), {}, BACK_TO_BACK}).Measure(round);
    KillFigure({"dynamic, back to back", dynamic, {"60"}, BACK_TO_BACK}).Measure(round);
}

} // namespace Bench
