#include "agent/daemon/Daemon.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/daemon/ControlServer.h"
#include "agent/daemon/Heartbeat.h"
#include "agent/daemon/Metrics.h"
#include "agent/daemon/Notify.h"
#include "agent/daemon/Status.h"
#include "agent/framework/RunningTasks.h"
#include "agent/framework/StopStep.h"
#include "agent/sdk/CpuGovernor.h"
#include "agent/sdk/ForeignRights.h"
#include "agent/sdk/LogCapture.h"
#include "agent/sdk/LogSetup.h"
#include "agent/sdk/ReplacingFile.h"
#include "framework/Counters.h"
#include "framework/Scope.h"
#include "sdk/HttpUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

namespace fs = std::filesystem;

// Longer than a task is given to end (Module::STOP_DEADLINE), shorter than a service manager waits.
constexpr std::chrono::seconds STOP_LIMIT{25};

void Say(const std::string& line) {
    std::cerr << "corvalentd: " + line + "\n" << std::flush;
}

std::string AbsoluteRoot(const std::string& root) {
    std::error_code error;
    const fs::path absolute = fs::absolute(root, error);
    return (error ? fs::path(root) : absolute / "").lexically_normal().string();
}

sigset_t StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

bool IsFolder(const std::string& path) {
    std::error_code error;
    return fs::is_directory(path, error);
}

bool IsModuleName(const std::string& name) {
    return name.starts_with("lib") && name.ends_with("_module.so");
}

// The place in the order of loading; equal places are ordered by name.
std::size_t PlaceOf(const std::string& fileName) {
    static const std::array<const char*, 3> FIRST = {"libdata_comm_module.so", "libisolate_module.so",
                                                     "libprocess_collect_module.so"};
    if (fileName == "libwhitelist_module.so") {
        return FIRST.size() + 1;
    }
    return static_cast<std::size_t>(std::find(FIRST.begin(), FIRST.end(), fileName) - FIRST.begin());
}

} // namespace

Daemon::Daemon(const std::string& root, bool console) : mRoot(AbsoluteRoot(root)), mConsole(console) {}

void Daemon::BlockStopSignals() {
    const sigset_t signals = StopSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

void Daemon::HideMemory() {
    // Only for root: another user would lose its own files in /proc.
    if (geteuid() == 0) {
        prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    }
}

int Daemon::Run() {
    if (const int status = Prepare(); status != 0) {
        return status;
    }
    // Before the log is set up, because the base of every Poco application leads all loggers to the
    // console when it is made.
    Framework::Engine engine;
    if (const int status = ApplySettings(); status != 0) {
        return status;
    }
    std::optional<StopLimit> stopLimit;
    const RunMark mark(mRoot + "data/running");
    TellOfPreviousEnd(mark);
    int status = StartModules(engine);
    if (status == 0) {
        status = Serve(engine, stopLimit);
    }
    return End(engine, status);
}

// Threads that were left behind run on and use what the end of the process destroys, so it ends here when there
// are any.
int Daemon::End(Framework::Engine& engine, int status) const {
    engine.UnInitModules();
    // The log may be on the same disk.
    if (const std::uint64_t lost = Framework::Counters::Of("reports.given_up").Get(); lost > 0) {
        Say(std::to_string(lost) + " reports could not be stored and are lost");
    }
    const std::vector<std::string> abandoned = Framework::ListAbandonedTasks();
    for (const std::string& task : abandoned) {
        status = Fail(EXIT_MODULE_FAILED, "task [" + task + "] did not end and was left behind");
    }
    moduleLog.Notice("stopped, status %d", status);
    if (!abandoned.empty()) {
        std::_Exit(status);
    }
    return status;
}

void Daemon::GiveUp() const {
    const std::string step = Framework::GetStopStep();
    const int status = Fail(EXIT_MODULE_FAILED, "the stop takes longer than " + std::to_string(STOP_LIMIT.count()) +
                                                    " seconds and is broken off; it waits for " +
                                                    (step.empty() ? "a delivery" : step));
    std::_Exit(status);
}

void Daemon::TellOfPreviousEnd(const RunMark& mark) {
    Framework::Counter& uncleanEnds = Framework::Counters::Of("daemon.unclean_end");
    if (mark.WasLeft()) {
        uncleanEnds.Add();
        moduleLog.Warning(
            "the run before this one, process [%s], did not end in order: it was killed, crashed, was broken off, "
            "or went down with the machine; what started meanwhile was not judged",
            mark.GetLeftBy());
    }
}

int Daemon::Fail(int status, const std::string& reason) const {
    Say(reason);
    if (mLogs) {
        moduleLog.Fatal("%s", reason);
    }
    return status;
}

std::vector<std::string> Daemon::ListModules(const std::string& folder) {
    std::vector<std::pair<std::size_t, std::string>> placed;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (IsModuleName(name)) {
            placed.emplace_back(PlaceOf(name), entry->path().string());
        }
    }
    std::sort(placed.begin(), placed.end());
    std::vector<std::string> paths;
    paths.reserve(placed.size());
    for (const auto& [place, path] : placed) {
        paths.push_back(path);
    }
    return paths;
}

int Daemon::Prepare() {
    for (const std::string& folder : {mRoot, mRoot + "module"}) {
        if (!IsFolder(folder)) {
            return Fail(EXIT_NO_ROOT, "there is no folder [" + folder + "]: a root is what the agent was installed to");
        }
    }
    // Whatever the agent makes is its own user's alone.
    umask(077);
    SDK::PathUtils::SetInstallationPath(mRoot);
    int status = MakeFolders();
    if (status == 0) {
        status = TakeLock();
    }
    if (status == 0) {
        // The lock says that nobody is writing there.
        for (const char* folder : {"conf", "data"}) {
            SDK::ReplacingFile::RemoveLeftovers(mRoot + folder);
        }
    }
    return status;
}

int Daemon::MakeFolders() const {
    for (const char* name : {"conf", "data", "log", "run"}) {
        const std::string folder = mRoot + name;
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
            return Fail(EXIT_CANNOT_CREATE, "cannot make [" + folder + "]: " + std::strerror(errno));
        }
    }
    // Also where the installation made it: who may not enter cannot even try the socket.
    if (chmod((mRoot + "run").c_str(), 0700) != 0) {
        return Fail(EXIT_CANNOT_CREATE, "cannot close [" + mRoot + "run] to others: " + std::strerror(errno));
    }
    return 0;
}

std::vector<std::string> Daemon::FindForeignRights() const {
    std::vector<std::string> found;
    for (const char* name : {"", "bin", "lib", "module", "conf", "data", "log", "run"}) {
        struct stat folder {};
        const std::string path = mRoot + name;
        const bool known = stat(path.c_str(), &folder) == 0;
        if (const std::string rights = known ? SDK::FindForeignRights(path, folder) : ""; !rights.empty()) {
            found.push_back(rights + ": others can change what the agent runs or believes");
        }
    }
    return found;
}

int Daemon::TakeLock() {
    std::string reason;
    switch (mLock.Acquire(mRoot + "run/agent.lock", reason)) {
    case RootLock::Result::TAKEN_BY_ANOTHER:
        return Fail(EXIT_ALREADY_RUNNING, reason);
    case RootLock::Result::FAILED:
        return Fail(EXIT_CANNOT_CREATE, reason);
    case RootLock::Result::HELD:
        break;
    }
    return 0;
}

int Daemon::ApplySettings() {
    std::string reason;
    if (!Settings::Load(mRoot + "conf/agent.json", mSettings, reason)) {
        return Fail(EXIT_BAD_SETTINGS, reason);
    }
    SDK::LogSettings log;
    log.target = mSettings.logTarget;
    log.filePath = mRoot + "log/corvalent.log";
    log.level = mSettings.logLevel;
    log.maxBytes = mSettings.logMaxBytes;
    log.files = mSettings.logFiles;
    log.console = mSettings.logConsole || mConsole;
    if (const int error = SDK::SetUpLogging(log); error != 0) {
        return Fail(EXIT_CANNOT_CREATE, "cannot log to [" + log.filePath + "]: " + std::strerror(error));
    }
    mLogs = true;
    Framework::Scope::SetCgroup(mSettings.cgroup);
    SDK::SetCpuBudgetPercent(mSettings.cpuBudgetPercent);
    for (const std::string& rights : FindForeignRights()) {
        moduleLog.Error("%s", rights);
        Say(rights);
    }
    moduleLog.Notice("version %s, root [%s], scope [%s], pid %d", CORVALENT_VERSION, mRoot, mSettings.cgroup,
                     static_cast<int>(getpid()));
    return 0;
}

int Daemon::StartModules(Framework::Engine& engine) const {
    const std::string folder = mRoot + "module";
    const std::vector<std::string> modules = ListModules(folder);
    if (modules.empty()) {
        return Fail(EXIT_NO_ROOT, "there is no module in [" + folder + "]");
    }
    for (const std::string& path : modules) {
        std::string reason;
        if (!engine.LoadModule(path, reason)) {
            return Fail(EXIT_MODULE_FAILED,
                        std::string("module [").append(path).append("] cannot be loaded: ").append(reason));
        }
    }
    return InitModules(engine);
}

int Daemon::InitModules(Framework::Engine& engine) const {
    const SDK::LogCapture errors;
    const int status = engine.InitModules();
    if (status == 0) {
        return 0;
    }
    const std::string cause = errors.FirstText();
    constexpr int MAX_STATUS = 255;
    return Fail(status > 0 && status <= MAX_STATUS ? status : EXIT_MODULE_FAILED,
                "a module cannot start: " + (cause.empty() ? "status " + std::to_string(status) : cause));
}

int Daemon::Serve(Framework::Engine& engine, std::optional<StopLimit>& stopLimit) const {
    Deliveries deliveries(engine, mRoot + "conf/");
    const Status status(engine, deliveries);
    MetricsServer metrics([&status] { return RenderMetrics(status.Collect()); });
    std::string reason;
    // Before the policy comes into force, so that a daemon that cannot stay does nothing.
    if (!ServeMetrics(metrics, reason)) {
        return Fail(EXIT_CANNOT_CREATE, reason);
    }
    deliveries.Restore();
    ControlServer server(engine, deliveries, status);
    if (!server.Start(mRoot + "run/agent.sock", reason)) {
        return Fail(EXIT_CANNOT_CREATE, reason);
    }
    Say("ready, root " + mRoot + ", pid " + std::to_string(getpid()));
    NotifyServiceManager("READY=1");
    Heartbeat heartbeat(engine, deliveries);
    if (const std::optional<Heartbeat::Timing> timing = Heartbeat::ReadTiming()) {
        heartbeat.Start(*timing);
    }
    WaitForStop();
    Framework::NoteStopStep("");
    stopLimit.emplace(STOP_LIMIT, [this] { GiveUp(); });
    NotifyServiceManager("STOPPING=1");
    heartbeat.Stop();
    metrics.Stop();
    // In this order, because requests under way may be waiting for a delivery, and a delivery for a
    // download.
    SDK::HttpUtils::GetInstance()->StopDownloads();
    deliveries.Stop();
    server.Stop();
    return EXIT_DONE;
}

// Also true when no port is wanted.
bool Daemon::ServeMetrics(MetricsServer& metrics, std::string& reason) const {
    return mSettings.metricsPort == 0 || metrics.Start(mSettings.metricsAddress, mSettings.metricsPort, reason);
}

void Daemon::WaitForStop() {
    const sigset_t signals = StopSignals();
    int signal = 0;
    sigwait(&signals, &signal);
    moduleLog.Notice("stopping on signal %d", signal);
}

} // namespace Daemon
