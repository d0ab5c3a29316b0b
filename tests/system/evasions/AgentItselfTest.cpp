#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "sdk/ProcStat.h"
#include "support/ChildProcess.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using TestSupport::ChildProcess;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr unsigned NOBODY = 65534;

// What `attempt` gives as another user, in a process of its own: 0, or the errno value of its failure.
template <typename Attempt> int AsNobody(const Attempt& attempt) {
    ChildProcess child = ChildProcess::Fork([&] {
        const bool changed = setgroups(0, nullptr) == 0 && setresgid(NOBODY, NOBODY, NOBODY) == 0 &&
                             setresuid(NOBODY, NOBODY, NOBODY) == 0;
        errno = 0;
        _exit(!changed ? 255 : attempt() ? 0 : errno);
    });
    return WEXITSTATUS(child.Wait());
}

int OpenAsNobody(const std::string& path, int flags = O_RDONLY) {
    return AsNobody([&] { return open(path.c_str(), flags | O_CLOEXEC) >= 0; });
}

int ConnectAsNobody(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return AsNobody([&] {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    });
}

bool IsDead(int pid) {
    SDK::ProcStat stat;
    return SDK::ProcStat::Read(pid, stat) != 0 || stat.state == 'Z';
}

class AgentItself : public testing::Test {
protected:
    // Other users get as far as the root, as to an installed one.
    AgentItself() { fs::permissions(agent.Root().Path(), fs::perms(0755)); }

    std::string Proc(const std::string& name) const { return "/proc/" + std::to_string(agent.GetPid()) + "/" + name; }

    Agent agent;
};

TEST_F(AgentItself, AnotherUserCanNeitherSignalNorTraceNorReadIt) {
    agent.MakeDetecting();
    const int pid = agent.GetPid();
    for (const int signal : {SIGKILL, SIGSTOP, SIGTERM, SIGUSR1, 0}) {
        EXPECT_EQ(AsNobody([&] { return kill(pid, signal) == 0; }), EPERM) << signal;
    }
    EXPECT_EQ(AsNobody([&] { return ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0; }), EPERM);
    EXPECT_EQ(AsNobody([&] { return ptrace(PTRACE_ATTACH, pid, nullptr, nullptr) == 0; }), EPERM);
    for (const char* name : {"mem", "environ", "maps", "fd", "fdinfo", "auxv", "io"}) {
        EXPECT_EQ(OpenAsNobody(Proc(name)), EACCES) << name;
    }
    EXPECT_EQ(OpenAsNobody(Proc("mem"), O_RDWR), EACCES);
    std::array<char, 16> buffer{};
    EXPECT_EQ(AsNobody([&] { return readlink(Proc("exe").c_str(), buffer.data(), buffer.size()) > 0; }), EACCES);
    EXPECT_EQ(AsNobody([&] {
                  rlimit none{0, 0};
                  return prlimit(pid, RLIMIT_NOFILE, &none, nullptr) == 0;
              }),
              EPERM);
    EXPECT_EQ(agent.GetMode(), DETECTING);
}

TEST_F(AgentItself, AnotherUserReachesNoStateAndNoSocketOfIt) {
    agent.MakeDetecting();
    ASSERT_EQ(OpenAsNobody(agent.Root().Path()), 0);
    const ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown"), "60"});
    agent.WaitForAlert(unknown.Pid());
    agent.Stop();
    agent.StartWatching();
    for (const char* file : {"conf/policy.json", "conf/desired.json", "data/reports.db", "log/corvalent.log",
                             "run/agent.lock", "run/agent.sock"}) {
        EXPECT_TRUE(fs::exists(agent.Root() / file)) << file;
        EXPECT_EQ(OpenAsNobody(agent.Root() / file), EACCES) << file;
    }
    EXPECT_EQ(ConnectAsNobody(agent.Root() / "run/agent.sock"), EACCES);
    struct stat socket {};
    ASSERT_EQ(stat((agent.Root() / "run/agent.sock").c_str(), &socket), 0);
    EXPECT_EQ(socket.st_mode & 07777U, 0600U);
    for (const char* file : {"conf/new", "data/new", "log/new", "run/new"}) {
        EXPECT_EQ(OpenAsNobody(agent.Root() / file, O_WRONLY | O_CREAT), EACCES) << file;
    }
}

TEST_F(AgentItself, TheFolderOfTheSocketIsClosedAgainAtEveryStart) {
    agent.Start();
    fs::permissions(agent.Root() / "run", fs::perms(0777));
    fs::permissions(agent.Root() / "run/agent.sock", fs::perms(0666));
    // Only root can open it to others; then they are served.
    EXPECT_EQ(ConnectAsNobody(agent.Root() / "run/agent.sock"), 0);
    const Result doctor = agent.Ctl({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_THAT(doctor.out, HasSubstr("/run has mode 0777: others can change"));
    agent.Stop();
    agent.Start();
    EXPECT_EQ(ConnectAsNobody(agent.Root() / "run/agent.sock"), EACCES);
}

bool HoldsCore(const std::string& folder) {
    return std::any_of(fs::directory_iterator(folder), {}, [](const fs::directory_entry& entry) {
        return entry.path().filename().string().starts_with("core");
    });
}

TEST_F(AgentItself, ACrashLeavesNoCoreWithWhatItKnew) {
    const std::string folder = agent.Work() / "crash";
    fs::create_directory(folder);
    const std::vector<std::string> launcher = {"/usr/bin/env", "-C", folder, "/usr/bin/prlimit", "--core=unlimited"};
    std::vector<std::string> words = launcher;
    words.insert(words.end(), {"/usr/bin/sleep", "60"});
    Program other(words, agent.Work() / "other");
    ASSERT_TRUE(WaitFor(
        [&] { return fs::read_symlink("/proc/" + std::to_string(other.GetPid()) + "/exe").filename() == "sleep"; }));
    other.Signal(SIGABRT);
    ASSERT_TRUE(other.WaitForEnd(TestSupport::DEADLINE));
    if (!HoldsCore(folder)) {
        GTEST_SKIP() << "core files do not go to the working folder here (/proc/sys/kernel/core_pattern)";
    }
    fs::remove_all(folder);
    fs::create_directory(folder);

    agent.SetLauncher(launcher);
    agent.Start();
    // A signal that no sanitizer catches, either.
    EXPECT_EQ(kill(agent.GetPid(), SIGABRT), 0);
    EXPECT_TRUE(WaitFor([&] { return IsDead(agent.GetPid()); }));
    EXPECT_FALSE(HoldsCore(folder));
}

} // namespace
} // namespace SystemTest
