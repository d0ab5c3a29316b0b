#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ProcessManagerTask.h"
#include "growth/Agent.h"
#include "growth/Figures.h"
#include "growth/TrustList.h"
#include "modules/ProcsMessage.h"
#include "support/ForeignProcess.h"
#include "support/Report.h"
#include "support/WaitFor.h"

namespace Bench {

namespace {

using Engine::ProcsMessage;
using TestSupport::ForeignProcess;

constexpr double MS = 1e3;
constexpr std::chrono::microseconds LOOK_INTERVAL{50};

// About as long as storing takes.
constexpr std::chrono::milliseconds UNDISTURBED_TIME{300};

// The task that judges, in directory mode, with a large local list, and a script that the server list
// vouches for: starting it adds an entry to the local list, which is stored.
class Judge {
public:
    explicit Judge(std::size_t entries) : mAgent(Agent::Mode::Directory) {
        const std::vector<TrustEntry> list = MakeEntries(mFiles.Path(), entries);
        MakeFiles(list);
        mAgent.root.Write("conf/whitelist.data", ToDocument(list));
        mScript = mFiles.Write("adopted.sh", "echo ready; read -r line\n");
        mAgent.root.Write("conf/arsserverproc.data",
                          R"({"process_info":[{"hash":"unused","name":"adopted.sh","path":")" + mScript +
                              R"(","size":1,"type":2}]})");
        mAgent.around.Start(mTask);
        if (!TestSupport::WaitFor([&] { return mAgent.engine.AreListsLoaded() && IsIdle(); })) {
            throw std::runtime_error("the task did not start");
        }
    }

    // The longest that an event waited, in seconds.
    struct Waits {
        double undisturbed = 0;
        double behindAdoption = 0; // while the adoption of one program was judged and stored
    };

    Waits Measure() {
        ForeignProcess adopted({.words = {"/bin/bash", mScript}});
        ForeignProcess other({.words = {"/bin/sleep", "1000"}});
        if (!adopted.AwaitLine()) {
            throw std::runtime_error("the script did not start");
        }
        Post(other.Pid(), ProcsMessage::KIND_EXEC);
        Await([&] { return mAgent.engine.FindProcess(other.Pid()).has_value(); });
        const std::string list = mAgent.root / "conf/whitelist.data";
        const auto before = std::filesystem::last_write_time(list);
        Waits waits;
        const auto start = std::chrono::steady_clock::now();
        waits.undisturbed =
            FindLongest(other.Pid(), [&] { return std::chrono::steady_clock::now() - start > UNDISTURBED_TIME; });
        Post(adopted.Pid(), ProcsMessage::KIND_EXEC);
        waits.behindAdoption =
            FindLongest(other.Pid(), [&] { return std::filesystem::last_write_time(list) != before; });
        if (mAgent.root.Read("conf/whitelist.data").find(mScript) == std::string::npos) {
            throw std::runtime_error("the program was not adopted");
        }
        return waits;
    }

private:
    // Its first event shows it.
    bool IsIdle() {
        // Of the interpreter, whose first digest is a wait of another kind.
        ForeignProcess probe({.words = {"/bin/bash", mFiles.Write("probe.sh", "echo ready; read -r line\n")}});
        if (!probe.AwaitLine()) {
            return false;
        }
        Post(probe.Pid(), ProcsMessage::KIND_EXEC);
        return TestSupport::WaitFor([&] { return mAgent.engine.FindProcess(probe.Pid()).has_value(); });
    }

    // Of events of the process, exits and executions by turns, one after the other until it is over.
    template <typename Condition> double FindLongest(int pid, Condition isOver) {
        double longest = 0;
        bool over = false;
        for (bool exited = true; !over || !exited; exited = !exited) {
            over = isOver();
            longest = std::max(longest, Seconds([&] {
                                   Post(pid, exited ? ProcsMessage::KIND_EXIT : ProcsMessage::KIND_EXEC);
                                   Await([&] { return mAgent.engine.FindProcess(pid)->exited == exited; });
                               }));
        }
        return longest;
    }

    void Post(int pid, unsigned int kind) {
        auto info = std::make_shared<ProcsMessage::procInfo>();
        info->pid = pid;
        std::shared_ptr<Framework::Message> message = std::make_shared<ProcsMessage>(pid, kind, info);
        if (!mTask->EnqueueMsg(message)) {
            throw std::runtime_error("the task's queue is full");
        }
    }

    template <typename Condition> static void Await(Condition holds) {
        while (!holds()) {
            std::this_thread::sleep_for(LOOK_INTERVAL);
        }
    }

    TestSupport::TempDir mFiles;
    Agent mAgent;
    std::string mScript;
    Poco::AutoPtr<Engine::ProcessManagerTask> mTask{new Engine::ProcessManagerTask};
};

} // namespace

void MeasureWaiting(int round) {
    const auto measure = [](const char* list, std::size_t entries) {
        const Judge::Waits waits = Judge(entries).Measure();
        const char* figure = "events: longest wait behind an adoption";
        Report({figure, list, "nothing adopted", waits.undisturbed * MS, "ms", {}});
        Report({figure, list, "corvalent", waits.behindAdoption * MS, "ms", {{Goal::Bound::AtMost, 5, ""}}});
    };
    Alternate(round, {[&] { measure("list of 10 MiB", LARGE_LIST); }, [&] { measure("list of 2 KiB", 10); }});
}

} // namespace Bench
