#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <json/value.h>

#include "support/TempCgroup.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"
#include "system/Program.h"

namespace Json {

// How GoogleTest shows a value.
inline void PrintTo(const Value& value, std::ostream* stream) {
    *stream << value.toStyledString();
}

} // namespace Json

namespace SystemTest {

// The module's modes, as `status` gives them.
enum Mode : int { STOPPED = 0, LEARNING = 1, LEARNED = 2, DETECTING = 3 };

// What a run of the operator's program came to.
struct Result {
    int status = -1;
    std::string out{};
    std::string err{};
};

// What differs between the policies of the tests.
struct PolicyOptions {
    std::string hash = "policy-1";
    std::string enabled = "enabled";
    int learningDays = 7;
    bool block = false;
    bool autoDetect = false;
    int scanPeriodSeconds = 3600;
    // Directory mode, when there are any directories; the three settings above are global mode's then.
    std::vector<std::string> dirs{};
    std::vector<std::string> exts{};
    bool mountMod = false;
};

// The feature policy as the server would send it; learned programs are reported every second.
Json::Value MakePolicy(const PolicyOptions& options);

// The SHA-256 of a file's bytes by the system's own sha256sum, not by the agent's code.
std::string Sha256Of(const std::string& path);

// A local trust list's entry for a file that there is.
Json::Value MakeEntry(const std::string& path);

// {"process_info": [...]} with the entries.
std::string MakeListDocument(const std::vector<Json::Value>& entries);

// The agent as it is shipped, in a root directory of its own, and its scope, a control group of its
// own: only what the test starts in there is seen, judged and ever killed.
//
// What waits throws std::runtime_error, with what the agent said last, when the deadline passes.
class Agent {
public:
    // How a test wants the agent's state to be before its first start.
    struct Learned {
        std::vector<std::string> programs{}; // trusted; the test's own image always is
        std::size_t entries = 60;            // of the local list in all, filled up with files that nobody runs
        int minutes = 43200;                 // enough for every learning period
        Mode mode = LEARNED;
    };

    Agent();
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    const TestSupport::TempDir& Root() const { return mRoot; }
    const TestSupport::TempCgroup& Scope() const { return *mScope; }
    // For programs, documents and whatever else a test makes.
    const TestSupport::TempDir& Work() const { return mWork; }

    // ---- its life

    // From now on Start starts the daemon through a program that executes it in its own place, such as
    // setpriv; the daemon's command line stands behind these words.
    void SetLauncher(std::vector<std::string> words) { mLauncher = std::move(words); }

    // Starts the daemon and waits until it takes requests.
    void Start();

    // The same without the wait.
    void Launch();
    bool IsReady() const;
    bool HasEnded() { return mDaemon->HasEnded(); }
    void Signal(int signal) { mDaemon->Signal(signal); }
    // As Program says.
    int GetExitStatus() const { return mDaemon->GetStatus(); }
    // What it said on standard error.
    std::string GetErrors() const { return mDaemon->GetErrors(); }

    // The same when a policy is in place: also until the module watches.
    void StartWatching();

    // SIGTERM, then waits for the end. The time that took; a failure of the test when the exit status
    // is not 0.
    std::chrono::milliseconds Stop();

    void Kill9();

    // A daemon in the same root that is expected to end by itself, started through `prefix`.
    Result RunToTheEnd(const std::vector<std::string>& prefix = {});

    pid_t GetPid() const { return mDaemon->GetPid(); }

    // ---- state files, while it does not run

    // Writes state files as an agent leaves them that has learned for a while.
    void WriteLearned(const Learned& learned);

    void WriteState(int minutes, Mode mode);

    // ---- what the operator does and sees

    Result Ctl(std::vector<std::string> words, const std::string& input = "",
               std::chrono::milliseconds deadline = TestSupport::DEADLINE);

    Result Apply(const Json::Value& policy);

    // Applies a policy that has to be accepted, and waits until the module watches again.
    void ApplyAndWatch(const PolicyOptions& options);

    // Delivers a command with a document.
    Result Command(const std::string& key, const std::string& document,
                   std::chrono::milliseconds deadline = TestSupport::DEADLINE);

    Json::Value Status() const;
    int GetMode() const { return Status()["mode"].asInt(); }
    void WaitForMode(Mode mode) const;

    // The entries of one of the lists local, server, os, service.
    Json::Value Trust(const std::string& list) const;

    // What was reported: [{"id", "time", "type", "data"}...], oldest first.
    std::vector<Json::Value> Reports(const std::string& type) const;

    // Those of every type with a greater id, as many as one answer holds.
    std::vector<Json::Value> ReportsAfter(std::int64_t id) const;

    // The documents of the alerts about one process, or about all.
    std::vector<Json::Value> Alerts() const;
    std::vector<Json::Value> AlertsOf(int pid) const;

    // The alert about the process, once there is one.
    Json::Value WaitForAlert(int pid) const;

    // Returns when that many marks stand on directories or mounts; of those that failed there are as many
    // as `failed` says.
    void WaitForMarks(int marks, int failed = 0) const;

    // How many objects the kernel has marked for the daemon.
    int CountKernelMarks() const;

    // How often this text stands in the log.
    int CountInLog(const std::string& text) const;

    // ---- shorthands

    // An agent that detects: state files as written, the policy applied, detection started, the module
    // watching and all lists loaded.
    void MakeDetecting(const Learned& learned, const PolicyOptions& options);
    void MakeDetecting() { MakeDetecting({}, {}); }

    // A program of its own: does what sleep does, with another content. The path.
    std::string MakeProgram(const std::string& name) const;

    // A program of its own: does what tail does. Given "-f" and a file it opens that and stays.
    std::string MakeReader(const std::string& name) const;

    // Returns when every process event before this call has been judged and every alert about one is
    // in the history; needs an agent that detects.
    void DrainEvents();

private:
    std::string CopyProgram(const char* original, const std::string& name) const;
    Json::Value Get(const std::string& path) const;
    void WaitUntilReady();
    void WaitUntilSubscribed(std::int64_t atLeast) const;
    void WaitUntilLoaded() const;
    std::int64_t CountSubscriptions() const;
    [[noreturn]] void GiveUp(const std::string& what) const;

    TestSupport::TempDir mRoot;
    TestSupport::TempDir mWork;
    std::unique_ptr<TestSupport::TempCgroup> mScope;
    std::unique_ptr<Program> mDaemon;
    std::vector<std::string> mLauncher;
    int mCounter = 0; // makes names unique
};

} // namespace SystemTest
