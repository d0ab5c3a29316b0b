#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

using Words = std::vector<std::string>;

constexpr const char* SETPRIV = "/usr/bin/setpriv";
constexpr unsigned NOBODY = 65534;

Words Split(const std::string& text) {
    std::istringstream stream(text);
    Words words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

// The settings of the unit as it is shipped, by name; a name that stands there twice has both values.
const std::multimap<std::string, std::string>& GetUnit() {
    static const std::multimap<std::string, std::string> unit = [] {
        std::multimap<std::string, std::string> settings;
        std::ifstream file(UNIT);
        for (std::string line; std::getline(file, line);) {
            const std::string::size_type equals = line.find('=');
            if (equals != std::string::npos && line.front() != '#') {
                settings.emplace(line.substr(0, equals), line.substr(equals + 1));
            }
        }
        return settings;
    }();
    return unit;
}

std::string GetSetting(const std::string& name) {
    const auto found = GetUnit().find(name);
    return found == GetUnit().end() ? "" : found->second;
}

// ---- capabilities

// A program that runs the words behind it with the unit's capabilities, except one, and no way to gain others.
Words WithTheUnitsCapabilities(const std::string& without = "") {
    std::string bounding = "-all";
    for (const std::string& capability : Split(GetSetting("CapabilityBoundingSet"))) {
        std::string name = capability.substr(std::string("CAP_").size());
        std::transform(name.begin(), name.end(), name.begin(), [](char c) { return std::tolower(c); });
        if (name != without) {
            bounding += ",+" + name;
        }
    }
    return {SETPRIV, "--no-new-privs", "--bounding-set=" + bounding, "--inh-caps=-all", "--"};
}

unsigned ModeOf(const std::string& path) {
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
    return file.st_mode & 07777U;
}

// An agent with the unit's capabilities.
class ServiceUnit : public testing::Test {
protected:
    ServiceUnit() {
        // So that other users reach the programs there.
        fs::permissions(agent.Work().Path(), fs::perms(0711));
        agent.SetLauncher(WithTheUnitsCapabilities());
    }

    // A program that belongs to another user and nobody else may read or run.
    std::string MakeProgramOfNobody(const std::string& name) const {
        std::string program = agent.MakeProgram(name);
        fs::permissions(program, fs::perms::owner_all);
        EXPECT_EQ(chown(program.c_str(), NOBODY, NOBODY), 0);
        return program;
    }

    // Runs it in the scope, as that user.
    ScopedProcess RunAsNobody(const std::string& program) const {
        return ScopedProcess(agent.Scope().Path(),
                             {SETPRIV, "--reuid=65534", "--regid=65534", "--clear-groups", "--", program, "60"});
    }

    // Detects, with blocking; what starts other programs here is trusted.
    void Detect() { agent.MakeDetecting({.programs = {SETPRIV}}, {.block = true}); }

    Agent agent;
};

TEST_F(ServiceUnit, ProgramsOfOtherUsersAreLearned) {
    const std::string program = MakeProgramOfNobody("learned");
    agent.Start();
    agent.ApplyAndWatch({});
    const ScopedProcess process = RunAsNobody(program);
    EXPECT_TRUE(WaitFor([&] {
        const Json::Value entries = agent.Trust("local");
        return std::any_of(entries.begin(), entries.end(), [&](const Json::Value& entry) {
            return entry["path"] == program && entry["hash"] == Sha256Of(program);
        });
    }));
    agent.Stop();
}

TEST_F(ServiceUnit, UnknownProgramsOfOtherUsersAreKilledAndMadeUnexecutable) {
    const std::string program = MakeProgramOfNobody("unknown");
    Detect();
    ScopedProcess process = RunAsNobody(program);
    EXPECT_TRUE(process.Wait(DEADLINE));
    EXPECT_TRUE(process.WasKilled());
    const Json::Value alert = agent.WaitForAlert(process.Pid())["process_info"];
    EXPECT_EQ(alert["block"], 1);
    EXPECT_EQ(alert["process_hash"], Sha256Of(program));
    EXPECT_EQ(ModeOf(program), 0400U);
    agent.Stop();
}

TEST_F(ServiceUnit, UnknownReadersOfWatchedFilesAreKilled) {
    agent.Work().Write("watched/file", "content");
    PolicyOptions options;
    options.block = true;
    options.dirs = {agent.Work() / "watched"};
    agent.MakeDetecting({}, options);
    agent.WaitForMarks(1);
    ScopedProcess reader(agent.Scope().Path(), {agent.MakeReader("reader"), "-f", agent.Work() / "watched/file"});
    EXPECT_TRUE(reader.Wait(DEADLINE));
    EXPECT_TRUE(reader.WasKilled());
    agent.Stop();
}

TEST_F(ServiceUnit, WithoutNetAdminItEndsAndSaysWhy) {
    const Result run = agent.RunToTheEnd(WithTheUnitsCapabilities("net_admin"));
    EXPECT_EQ(run.status, 77);
    EXPECT_NE(run.err.find("CAP_NET_ADMIN"), std::string::npos) << run.err;
}

TEST_F(ServiceUnit, WithoutSysAdminDirectoryModeWatchesNothingAndSaysWhy) {
    agent.Work().Write("watched/file", "content");
    PolicyOptions options;
    options.dirs = {agent.Work() / "watched"};
    agent.SetLauncher(WithTheUnitsCapabilities("sys_admin"));
    agent.Start();
    agent.Apply(MakePolicy(options));
    EXPECT_TRUE(WaitFor([&] { return agent.CountInLog("CAP_SYS_ADMIN") > 0; }));
    EXPECT_EQ(agent.Status()["files"]["marks"], 0);
}

// Its image cannot be told then. A program that has no more capabilities than the agent, and the same user, is
// still judged.
TEST_F(ServiceUnit, WithoutSysPtraceProcessesOfOtherUsersAreNotSeen) {
    const std::string hidden = MakeProgramOfNobody("hidden");
    const std::string seen = agent.MakeProgram("seen");
    const Words confined = WithTheUnitsCapabilities("sys_ptrace");
    agent.SetLauncher(confined);
    agent.WriteLearned({.programs = {SETPRIV}});
    agent.Start();
    agent.ApplyAndWatch({});
    EXPECT_TRUE(WaitFor([&] { return agent.Status()["lists"]["local"].asInt() > 0; }));
    EXPECT_EQ(agent.Ctl({"detect", "start"}).status, 0);
    const ScopedProcess first = RunAsNobody(hidden);
    Words command = confined;
    command.insert(command.end(), {seen, "60"});
    const ScopedProcess second(agent.Scope().Path(), command);
    EXPECT_EQ(agent.WaitForAlert(second.Pid())["process_info"]["process_path"], seen);
    EXPECT_TRUE(agent.AlertsOf(first.Pid()).empty());
}

TEST_F(ServiceUnit, WithoutDacReadSearchAProgramThatOnlyItsOwnerReadsIsNotJudged) {
    const std::string program = MakeProgramOfNobody("unreadable");
    agent.SetLauncher(WithTheUnitsCapabilities("dac_read_search"));
    Detect();
    ScopedProcess process = RunAsNobody(program);
    agent.DrainEvents();
    EXPECT_FALSE(process.HasEnded());
    EXPECT_TRUE(agent.AlertsOf(process.Pid()).empty());
}

TEST_F(ServiceUnit, WithoutKillAProcessOfAnotherUserGoesOnAndTheFailureIsCounted) {
    const std::string program = MakeProgramOfNobody("unknown");
    agent.SetLauncher(WithTheUnitsCapabilities("kill"));
    Detect();
    ScopedProcess process = RunAsNobody(program);
    EXPECT_EQ(agent.WaitForAlert(process.Pid())["process_info"]["block"], 0);
    EXPECT_FALSE(process.HasEnded());
    EXPECT_GE(agent.CountInLog("could not be isolated: Operation not permitted"), 1);
    EXPECT_GE(agent.Status()["counters"]["isolate.failed"].asInt(), 1);
}

TEST_F(ServiceUnit, WithoutFownerAnotherUsersProgramStaysExecutableAndTheLogSaysSo) {
    const std::string program = MakeProgramOfNobody("unknown");
    agent.SetLauncher(WithTheUnitsCapabilities("fowner"));
    Detect();
    ScopedProcess process = RunAsNobody(program);
    EXPECT_TRUE(process.Wait(DEADLINE));
    EXPECT_TRUE(WaitFor([&] { return agent.CountInLog("[" + program + "] could not be changed") > 0; }));
    EXPECT_EQ(ModeOf(program), 0700U);
}

// A file that has just changed is not remembered for some seconds, whatever the rights.
bool IsRememberedAfterAWhile(Agent& agent, const std::string& program) {
    return WaitFor([&] {
        EXPECT_EQ(agent.Ctl({"explain", program}).status, 0);
        return agent.Status()["counters"]["digest.hit"].asInt() > 0;
    });
}

// Of a file that somebody else can write to no digest is remembered.
TEST_F(ServiceUnit, DigestsOfRootsProgramsAreRememberedAndThoseOfOthersComputedAnew) {
    const std::string program = MakeProgramOfNobody("program");
    const std::string own = agent.MakeProgram("own");
    agent.Start();
    // The later of the two can be remembered, so time is no reason any more why the other could not.
    EXPECT_TRUE(IsRememberedAfterAWhile(agent, own));
    const Json::Value before = agent.Status()["counters"];
    agent.Ctl({"explain", program});
    agent.Ctl({"explain", program});
    const Json::Value after = agent.Status()["counters"];
    EXPECT_EQ(after["digest.hit"], before["digest.hit"]);
    EXPECT_EQ(after["digest.refused"].asInt(), before["digest.refused"].asInt() + 2);
}

// ---- what else the unit withholds

// `systemd-analyze syscall-filter`: the groups of system calls by name, "@…", each with its calls and groups.
std::map<std::string, Words> ReadSystemCallGroups() {
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen("systemd-analyze syscall-filter 2>&1", "r"), pclose);
    std::map<std::string, Words> groups;
    std::string group;
    std::array<char, 256> buffer{};
    while (output && fgets(buffer.data(), buffer.size(), output.get()) != nullptr) {
        const std::string line = buffer.data();
        const Words words = Split(line);
        if (line.front() == '@') {
            group = words.front();
        } else if (words.size() == 1) {
            groups[group].push_back(words.front());
        }
    }
    return groups;
}

std::set<std::string> Expand(const Words& names, const std::map<std::string, Words>& groups) {
    std::set<std::string> calls;
    for (const std::string& name : names) {
        if (name.front() == '@') {
            calls.merge(Expand(groups.at(name), groups));
        } else {
            calls.insert(name);
        }
    }
    return calls;
}

// systemd.exec(5), SystemCallFilter: "~" takes away from what the lines before it allow; @default is always
// allowed.
std::set<std::string> GetAllowedCalls() {
    const std::map<std::string, Words> groups = ReadSystemCallGroups();
    std::set<std::string> allowed = Expand({"@default"}, groups);
    const auto [begin, end] = GetUnit().equal_range("SystemCallFilter");
    for (auto line = begin; line != end; ++line) {
        const bool takesAway = line->second.starts_with("~");
        std::set<std::string> calls = Expand(Split(line->second.substr(takesAway ? 1 : 0)), groups);
        if (takesAway) {
            std::erase_if(allowed, [&](const std::string& call) { return calls.contains(call); });
        } else {
            allowed.merge(calls);
        }
    }
    return allowed;
}

// What strace wrote about a daemon: "PID CALL(ARGUMENTS…" or "PID <... CALL resumed>…" a line.
struct Trace {
    std::set<std::string> calls;
    Words families;     // first argument of each socket()
    Words suspicious{}; // lines with new namespaces, or memory both writable and executable
};

Trace ReadTrace(const std::string& path) {
    Trace trace;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::string::size_type start = line.find_first_not_of(" 0123456789");
        const std::string::size_type bracket = line.find('(', start);
        if (start == std::string::npos || bracket == std::string::npos || std::islower(line[start]) == 0) {
            continue; // signals, ends, and second halves of calls
        }
        const std::string call = line.substr(start, bracket - start);
        trace.calls.insert(call);
        if (call == "socket") {
            trace.families.push_back(line.substr(bracket + 1, line.find(',', bracket) - bracket - 1));
        }
        if (line.find("CLONE_NEW") != std::string::npos || line.find("PROT_WRITE|PROT_EXEC") != std::string::npos) {
            trace.suspicious.push_back(line);
        }
    }
    return trace;
}

// strace has written that the daemon ended; the process id is padded.
bool IsComplete(const std::string& path, pid_t daemon) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.ends_with(" +++ exited with 0 +++") && std::stoi(line) == daemon) {
            return true;
        }
    }
    return false;
}

// Has the daemon do everything that it can.
void Exercise(Agent& agent, WebServer& server) {
    const std::string program = agent.MakeProgram("unknown");
    agent.MakeDetecting({}, {.block = true});
    ScopedProcess unknown(agent.Scope().Path(), {program, "60"});
    EXPECT_TRUE(unknown.Wait(DEADLINE));
    const std::string list = MakeListDocument({});
    Json::Value preset;
    preset["url"] = server.Put("preset", list);
    preset["hash"] = Sha256Of(agent.Work().Write("preset", list));
    EXPECT_EQ(agent.Command("whitelist_10002", SDK::JsonUtils::JsonToString(preset)).status, 0);
    EXPECT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(SETPRIV)})).status, 0);

    agent.Work().Write("watched/file", "content");
    PolicyOptions options;
    options.hash = "watching";
    options.block = true;
    options.dirs = {agent.Work() / "watched"};
    agent.ApplyAndWatch(options);
    agent.WaitForMarks(1);
    agent.WaitForMode(DETECTING);
    ScopedProcess reader(agent.Scope().Path(), {agent.MakeReader("reader"), "-f", agent.Work() / "watched/file"});
    EXPECT_TRUE(reader.Wait(DEADLINE));
    EXPECT_EQ(agent.Ctl({"learn", "reset"}).status, 0);
}

TEST(ServiceUnitFilter, NothingThatTheAgentDoesIsWithheldFromIt) {
    Agent agent;
    WebServer server;
    const std::string file = agent.Work() / "trace";
    // -D: the daemon keeps the process id and the parent that it would have.
    agent.SetLauncher({"/usr/bin/strace", "-D", "-f", "-q", "-o", file, "--"});
    Exercise(agent, server);
    const pid_t daemon = agent.GetPid();
    agent.Stop();
    ASSERT_TRUE(WaitFor([&] { return IsComplete(file, daemon); }));

    const Trace trace = ReadTrace(file);
    EXPECT_TRUE(trace.calls.contains("fanotify_mark") && trace.calls.contains("pidfd_send_signal"));
    const std::set<std::string> allowed = GetAllowedCalls();
    for (const std::string& call : trace.calls) {
        EXPECT_TRUE(allowed.contains(call)) << call << " is not in the unit's SystemCallFilter";
    }
    const Words families = Split(GetSetting("RestrictAddressFamilies"));
    for (const std::string& family : trace.families) {
        EXPECT_NE(std::find(families.begin(), families.end(), family), families.end())
            << family << " is not in the unit's RestrictAddressFamilies";
    }
    EXPECT_EQ(trace.suspicious, Words());
}

// systemd.exec(5) and its exec_needs_mount_namespace: a mark on a mount of such a namespace reports nothing
// of what happens outside of it, and mounts made later are not seen.
TEST(ServiceUnitFilter, TheAgentSeesTheMachinesOwnMountsProcessesAndNetwork) {
    for (const char* setting : {"PrivateTmp",        "PrivateMounts",         "PrivateDevices",
                                "PrivateIPC",        "PrivateNetwork",        "PrivateUsers",
                                "ProtectSystem",     "ProtectHome",           "ProtectProc",
                                "ProcSubset",        "ProtectKernelTunables", "ProtectKernelModules",
                                "ProtectKernelLogs", "ProtectControlGroups",  "ReadWritePaths",
                                "ReadOnlyPaths",     "InaccessiblePaths",     "ExecPaths",
                                "NoExecPaths",       "TemporaryFileSystem",   "BindPaths",
                                "BindReadOnlyPaths", "RootDirectory",         "RootImage",
                                "MountFlags",        "MountImages",           "ExtensionImages",
                                "DynamicUser",       "NetworkNamespacePath",  "JoinsNamespaceOf",
                                "LogNamespace"}) {
        EXPECT_EQ(GetUnit().count(setting), 0U) << setting;
    }
}

} // namespace
} // namespace SystemTest
