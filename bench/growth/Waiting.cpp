#include <algorithm>
#include <chrono>
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

    // The longest that an event waited while the adoption of one program was judged and stored.
    double MeasureLongestWait() {
        ForeignProcess adopted({.words = {"/bin/bash", mScript}});
        ForeignProcess other({.words = {"/bin/sleep", "1000"}});
        if (!adopted.AwaitLine()) {
            throw std::runtime_error("the script did not start");
        }
        Post(other.Pid(), ProcsMessage::KIND_EXEC);
        Await([&] { return mAgent.engine.FindProcess(other.Pid()).has_value(); });
        const std::string list = mAgent.root / "conf/whitelist.data";
        const auto before = std::filesystem::last_write_time(list);
        double longest = 0;
        bool stored = false;
        Post(adopted.Pid(), ProcsMessage::KIND_EXEC);
        for (bool exited = true; !stored; exited = !exited) {
            stored = std::filesystem::last_write_time(list) != before;
            longest = std::max(longest, Seconds([&] {
                                   Post(other.Pid(), exited ? ProcsMessage::KIND_EXIT : ProcsMessage::KIND_EXEC);
                                   Await([&] { return mAgent.engine.FindProcess(other.Pid())->exited == exited; });
                               }));
        }
        if (mAgent.root.Read("conf/whitelist.data").find(mScript) == std::string::npos) {
            throw std::runtime_error("the program was not adopted");
        }
        return longest;
    }

private:
    // Its first event shows it.
    bool IsIdle() {
        ForeignProcess probe({.words = {"/bin/sleep", "1000"}});
        Post(probe.Pid(), ProcsMessage::KIND_EXEC);
        return TestSupport::WaitFor([&] { return mAgent.engine.FindProcess(probe.Pid()).has_value(); });
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
        Judge judge(entries);
        Report({"events: longest wait behind an adoption",
                list,
                "corvalent",
                judge.MeasureLongestWait() * MS,
                "ms",
                {{Goal::Bound::AtMost, 5, ""}}});
    };
    Alternate(round, {[&] { measure("list of 10 MiB", LARGE_LIST); }, [&] { measure("list of 2 KiB", 10); }});
}

} // namespace Bench
