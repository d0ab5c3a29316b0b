#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/daemon/Deliveries.h"
#include "agent/daemon/MetricsServer.h"
#include "agent/daemon/RootLock.h"
#include "agent/daemon/RunMark.h"
#include "agent/daemon/Settings.h"
#include "agent/daemon/StopLimit.h"
#include "framework/Engine.h"

namespace Daemon {

// How the daemon ends (sysexits.h where it has a name for it). A module that cannot start ends it
// with a status of its own, 77 for a missing permission.
enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_NO_ROOT = 66,         // the root or its module folder is missing
    EXIT_MODULE_FAILED = 70,   // a module cannot be loaded, failed without a status of its own, or did not end
    EXIT_CANNOT_CREATE = 73,   // a folder, the lock, the log, the socket or the port for metrics
    EXIT_ALREADY_RUNNING = 75, // another daemon works in this root
    EXIT_BAD_SETTINGS = 78,    // conf/agent.json
};

// The agent as a process: everything from the check of the root to the orderly end, in the foreground.
//
// SIGTERM and SIGINT end it; it takes them with sigwait.
// What an operator must know at once goes to standard error, one line each: that the daemon is ready,
// or why it ends. The rest is in the log.
class Daemon {
public:
    // `root` without regard to a trailing "/". `console` sends the log to standard error, too, whatever
    // the settings say.
    Daemon(const std::string& root, bool console);

    // Blocks the signals that end the daemon in the whole process. Called before it runs and before any
    // other thread is there.
    static void BlockStopSignals();

    // No core file is ever written of this process, whose memory holds lists and command lines, and nobody may
    // trace it who is not root with CAP_SYS_PTRACE. Programs that it starts are not concerned.
    static void HideMemory();

    // The whole life of the daemon; returns its exit status.
    int Run();

    // The modules in the folder, in the order in which they are loaded: what leaves reports and
    // isolates first, then what collects, then any others by name, and the whitelist module, which
    // talks to all of them, last. Paths.
    static std::vector<std::string> ListModules(const std::string& folder);

private:
    // Each returns 0 or the exit status.
    int Prepare();
    int MakeFolders() const;
    // A line for each folder that others than this user and root may write to; no reason to end.
    std::vector<std::string> FindForeignRights() const;
    int TakeLock();
    int ApplySettings();
    int StartModules(Framework::Engine& engine) const;
    int InitModules(Framework::Engine& engine) const;
    // `stopLimit` begins with the stop.
    int Serve(Framework::Engine& engine, std::optional<StopLimit>& stopLimit) const;
    int End(Framework::Engine& engine, int status) const;
    void GiveUp() const;
    bool ServeMetrics(MetricsServer& metrics, std::string& reason) const;
    static void WaitForStop();

    // Says why the daemon ends, also in the log once there is one; returns `status`.
    static void TellOfPreviousEnd(const RunMark& mark);
    int Fail(int status, const std::string& reason) const;

    const std::string mRoot; // with a trailing "/"
    const bool mConsole;
    Settings mSettings;
    bool mLogs = false;
    RootLock mLock;
};

} // namespace Daemon
