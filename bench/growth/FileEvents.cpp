#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "SpecifiedFileAuditTask.h"
#include "agent/filenotify/FileNotifyTask.h"
#include "framework/Counters.h"
#include "growth/Agent.h"
#include "growth/Figures.h"
#include "sdk/FileUtils.h"
#include "support/Report.h"
#include "support/TempMount.h"
#include "support/WaitFor.h"

namespace Bench {

namespace {

// Fewer than the kernel keeps in a group's queue (fs.fanotify.max_queued_events, 16,384).
constexpr int FILES = 16000;
constexpr int BURSTS = 20;
constexpr double US = 1e6;
constexpr std::uint64_t DIGEST_LIMIT = 10485760;

void Require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

// A directory on a file system of its own, and a program that opens all its files, none twice: events of
// one file would be merged.
class Folder {
public:
    Folder() {
        for (int i = 0; i < FILES; ++i) {
            mFiles.push_back(mMount.Write("data/" + std::to_string(i), "x"));
        }
    }

    std::string Path() const { return mMount / "data"; }

    void OpenAll() const {
        for (const std::string& file : mFiles) {
            const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
            Require(fd >= 0, "a file cannot be opened");
            close(fd);
        }
    }

private:
    TestSupport::TempMount mMount;
    std::vector<std::string> mFiles;
};

// A group with the mark that the agent places, and nothing behind it.
class BareGroup {
public:
    explicit BareGroup(const std::string& folder)
        : mFd(fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK, O_RDONLY | O_LARGEFILE | O_CLOEXEC)) {
        const std::uint64_t mask = FAN_OPEN | FAN_MODIFY | FAN_ONDIR | FAN_EVENT_ON_CHILD;
        Require(mFd >= 0 && fanotify_mark(mFd, FAN_MARK_ADD, mask, AT_FDCWD, folder.c_str()) == 0, "no mark");
    }
    ~BareGroup() { close(mFd); }
    BareGroup(const BareGroup&) = delete;
    BareGroup& operator=(const BareGroup&) = delete;

    // Reads and closes what waits; how many.
    int Drain() const {
        int count = 0;
        alignas(fanotify_event_metadata) std::array<char, 128 * sizeof(fanotify_event_metadata)> buffer;
        for (ssize_t length = 0; (length = read(mFd, buffer.data(), buffer.size())) > 0;) {
            const auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer.data());
            for (; FAN_EVENT_OK(event, length); event = FAN_EVENT_NEXT(event, length)) {
                close(event->fd);
                ++count;
            }
        }
        return count;
    }

private:
    const int mFd;
};

// An agent that watches the folder, in a process of its own that can be halted, with the program that
// opens the files among those that it trusts.
class WatchingAgent {
public:
    explicit WatchingAgent(const std::string& folder) {
        void* const shared = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        Require(shared != MAP_FAILED, "no memory to share");
        mShared = new (shared) Shared;
        mChild = fork();
        if (mChild == 0) {
            Serve(folder);
        }
        Require(TestSupport::WaitFor([this] { return mShared->ready.load(); }), "the agent does not watch");
    }
    ~WatchingAgent() {
        mShared->stop.store(true);
        waitpid(mChild, nullptr, 0);
        munmap(mShared, sizeof(Shared));
    }
    WatchingAgent(const WatchingAgent&) = delete;
    WatchingAgent& operator=(const WatchingAgent&) = delete;

    void Halt() const {
        int status = 0;
        kill(mChild, SIGSTOP);
        Require(waitpid(mChild, &status, WUNTRACED) == mChild && WIFSTOPPED(status), "the agent has ended");
    }
    void GoOn() const { kill(mChild, SIGCONT); }

    // Of all that there have been.
    std::uint64_t CountJudged() const { return mShared->judged.load(); }
    void AwaitJudged(std::uint64_t count) const {
        while (mShared->judged.load() + mShared->lost.load() < count) {
            std::this_thread::sleep_for(LOOK_INTERVAL);
        }
        Require(mShared->lost.load() == 0, "file events were lost");
    }

private:
    static constexpr std::chrono::microseconds LOOK_INTERVAL{200};

    struct Shared {
        std::atomic<bool> ready{false};
        std::atomic<bool> stop{false};
        std::atomic<std::uint64_t> judged{0};
        std::atomic<std::uint64_t> lost{0};
    };

    [[noreturn]] void Serve(const std::string& folder) const {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        {
            Agent agent(Agent::Mode::Directory, {folder});
            TrustOurselves(agent.engine);
            const Poco::AutoPtr<Engine::FileNotifyTask> notify(new Engine::FileNotifyTask);
            agent.around.Start(notify);
            agent.around.Start(new Engine::SpecifiedFileAuditTask);
            const Framework::Counter& judged = Framework::Counters::Of("files.judged");
            const Framework::Counter& lost = Framework::Counters::Of("files.lost");
            while (!mShared->stop.load()) {
                if (!mShared->ready.load()) {
                    const Json::Value watchers = notify->DescribeWatchers();
                    mShared->ready.store(!watchers.empty() && watchers[0]["marks"].asInt() == 1);
                }
                mShared->judged.store(judged.Get());
                mShared->lost.store(lost.Get());
                std::this_thread::sleep_for(LOOK_INTERVAL);
            }
        }
        _exit(0);
    }

    static void TrustOurselves(Engine::ProcessManager& engine) {
        Engine::ProcessInfo info;
        info.path = std::filesystem::read_symlink("/proc/self/exe");
        info.name = info.path.substr(info.path.rfind('/') + 1);
        info.type = Engine::MATCH_HASH;
        SDK::FileUtils::GetFileSha256(info.path, info.hash, DIGEST_LIMIT);
        engine.UpdateLocalProcessInfo(info);
    }

    Shared* mShared = nullptr;
    pid_t mChild = -1;
};

constexpr const char* JUDGED = "file events judged in directory mode";
constexpr const char* COST = "cost of an open in scope";

// What all bursts of one side came to.
struct Sums {
    double openSeconds = 0;
    double judgeSeconds = 0;
    double judged = 0;
};

// A burst that fits into the kernel's queue; what is read is there before the reader goes on.
void AddBareBurst(const Folder& folder, const BareGroup& group, Sums& sums) {
    sums.openSeconds += Seconds([&] { folder.OpenAll(); });
    sums.judgeSeconds += Seconds([&] { Require(group.Drain() == FILES, "events are missing"); });
    sums.judged += FILES;
}

// Two bursts: one that the agent reads meanwhile, and one that it finds when it goes on.
void AddAgentBursts(const Folder& folder, const WatchingAgent& agent, Sums& sums) {
    std::uint64_t opened = agent.CountJudged() + FILES;
    sums.openSeconds += Seconds([&] { folder.OpenAll(); });
    agent.AwaitJudged(opened);
    agent.Halt();
    folder.OpenAll();
    opened += FILES;
    agent.GoOn();
    // Events are read some milliseconds late, on purpose; the rate counts from the first.
    agent.AwaitJudged(opened - FILES + 1);
    sums.judged += static_cast<double>(opened - agent.CountJudged());
    sums.judgeSeconds += Seconds([&] { agent.AwaitJudged(opened); });
}

void ReportSums(const Sums& sums, const char* costSeries, const char* judgedSeries, const std::vector<Goal>& costGoals,
                const std::vector<Goal>& judgedGoals) {
    Report({COST, "", costSeries, sums.openSeconds / (BURSTS * FILES) * US, "us", costGoals});
    Report({JUDGED, "", judgedSeries, sums.judged / sums.judgeSeconds, "1/s", judgedGoals});
}

} // namespace

// The bursts of both sides take turns, each in a folder of its own, so that they meet the same machine.
void MeasureFileEvents(int round) {
    const Folder bareFolder;
    const Folder watchedFolder;
    const BareGroup group(bareFolder.Path());
    const WatchingAgent agent(watchedFolder.Path());
    // Until the opening program and its files are known.
    watchedFolder.OpenAll();
    agent.AwaitJudged(FILES);
    Sums bare;
    Sums product;
    for (int i = 0; i < BURSTS; ++i) {
        Alternate(round + i, {[&] { AddBareBurst(bareFolder, group, bare); },
                              [&] { AddAgentBursts(watchedFolder, agent, product); }});
    }
    ReportSums(bare, "idle mark", "read and close", {}, {});
    ReportSums(product, "corvalent", "corvalent", {{Goal::Bound::AtMost, 1.05, "idle mark"}},
               {{Goal::Bound::AtLeast, 0.5, "read and close"}});
}

} // namespace Bench
