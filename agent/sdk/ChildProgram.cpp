#include "agent/sdk/ChildProgram.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/Pidfd.h"
#include "agent/sdk/WriteConfinement.h"
#include "sdk/ModuleLog.h"
#include "sdk/StrUtils.h"

namespace SDK {

namespace {

ModuleLog moduleLog("sdk");

using Clock = std::chrono::steady_clock;

constexpr std::size_t BUFFER_BYTES = 16384;

// How often to ask for the child's end where the kernel has no pidfd_open (before 5.3).
constexpr int POLL_SLICE_MS = 20;

// The attributes and file actions of one posix_spawn, in the order in which the child applies them.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawnattr_init(&mAttributes);
        posix_spawn_file_actions_init(&mActions);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&mActions);
        posix_spawnattr_destroy(&mAttributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    void DetachFromCaller() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&mAttributes, &none);
        posix_spawnattr_setsigdefault(&mAttributes, &all);
        posix_spawnattr_setpgroup(&mAttributes, 0);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }

    // The pipe is put in its place first, because it may itself have the number 0 or 2 when the
    // calling process runs without standard descriptors.
    void RedirectStandardFiles(int outputFd) {
        posix_spawn_file_actions_adddup2(&mActions, outputFd, STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&mActions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&mActions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addclosefrom_np(&mActions, STDERR_FILENO + 1);
    }

    bool Spawn(const std::string& program, const std::vector<std::string>& words,
               const std::vector<std::string>& environment, pid_t& pid) const {
        return posix_spawn(&pid, program.c_str(), &mActions, &mAttributes, ToPointers(words).data(),
                           ToPointers(environment).data()) == 0;
    }

private:
    static std::vector<char*> ToPointers(const std::vector<std::string>& texts) {
        std::vector<char*> pointers;
        pointers.reserve(texts.size() + 1);
        for (const std::string& text : texts) {
            pointers.push_back(const_cast<char*>(text.c_str()));
        }
        pointers.push_back(nullptr);
        return pointers;
    }

    posix_spawnattr_t mAttributes{};
    posix_spawn_file_actions_t mActions{};
};

// The folders that programs are looked up in. A relative one would be another one in every folder.
std::vector<std::string> ReadSearchPath() {
    const char* path = std::getenv("PATH");
    std::vector<std::string> folders = StrUtils::EasySplit(path == nullptr ? "/usr/bin:/bin" : path, ":");
    std::erase_if(folders, [](const std::string& folder) { return !folder.starts_with('/'); });
    return folders;
}

bool IsProgram(const std::string& path) {
    struct stat file {};
    return stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) && access(path.c_str(), X_OK) == 0;
}

// Where the program is: the name itself when it has a "/"; empty when it is found nowhere.
std::string LookUp(const std::string& name, const std::vector<std::string>& folders) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    for (const std::string& folder : folders) {
        std::string path = folder;
        path.append("/").append(name);
        if (IsProgram(path)) {
            return path;
        }
    }
    return "";
}

std::vector<std::string> MakeEnvironment(const std::vector<std::string>& folders) {
    std::string path = "PATH=";
    for (const std::string& folder : folders) {
        path += (path.back() == '=' ? "" : ":") + folder;
    }
    return {path, "LC_ALL=C"};
}

void ConfineWrites() {
    static std::once_flag said;
    if (!ConfineWritesToTemporaryFiles()) {
        std::call_once(said, [] {
            moduleLog.Warning("the kernel has no Landlock: programs that the agent runs can write to any file");
        });
    }
}

// On a thread of its own, because what a thread gives up by confining itself it does not get back.
bool SpawnConfined(const SpawnPlan& plan, const std::vector<std::string>& words, pid_t& pid) {
    const std::vector<std::string> folders = ReadSearchPath();
    const std::string program = LookUp(words.front(), folders);
    const std::vector<std::string> environment = MakeEnvironment(folders);
    bool started = false;
    try {
        std::thread([&] {
            ConfineWrites();
            started = plan.Spawn(program, words, environment, pid);
        }).join();
    } catch (const std::system_error&) {
        return false;
    }
    return started;
}

// Takes what the pipe holds now. Closes the descriptor at the end of the stream.
void Drain(FileDescriptor& pipe, std::string& output, std::size_t maxOutput) {
    std::array<char, BUFFER_BYTES> buffer; // NOLINT(*-member-init): read fills what is used
    while (pipe.IsOpen()) {
        const ssize_t count = ReadRetrying(pipe.Get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EAGAIN) {
            return;
        }
        if (count <= 0) {
            pipe.Reset();
            return;
        }
        output.append(buffer.data(), std::min(static_cast<std::size_t>(count), maxOutput - output.size()));
    }
}

int ToResult(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? RUN_SIGNAL_BASE + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

// True when the child has ended (or is not ours to wait for any more), its result in `result`.
bool Reap(pid_t pid, int options, int& result) {
    int waitStatus = 0;
    pid_t reaped = 0;
    do {
        reaped = waitpid(pid, &waitStatus, options);
    } while (reaped < 0 && errno == EINTR);
    if (reaped == 0) {
        return false;
    }
    result = reaped == pid ? ToResult(waitStatus) : RUN_NOT_STARTED;
    return true;
}

int WaitReading(pid_t pid, FileDescriptor& pipe, std::string& output, std::size_t maxOutput, int timeoutMs) {
    const FileDescriptor ended(OpenPidfd(pid));
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int result = RUN_NOT_STARTED;
    while (!Reap(pid, WNOHANG, result)) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            kill(-pid, SIGKILL);
            Reap(pid, 0, result);
            break;
        }
        const int waitMs = ended.IsOpen() ? static_cast<int>(left) : std::min(static_cast<int>(left), POLL_SLICE_MS);
        std::array<pollfd, 2> sources{{{pipe.Get(), POLLIN, 0}, {ended.Get(), POLLIN, 0}}};
        poll(sources.data(), sources.size(), waitMs);
        Drain(pipe, output, maxOutput);
    }
    Drain(pipe, output, maxOutput);
    return result;
}

bool HasNulByte(const std::string& word) {
    return word.find('\0') != std::string::npos;
}

} // namespace

int RunProgram(const std::vector<std::string>& words, std::string& output, std::size_t maxOutput, int timeoutMs) {
    output.clear();
    // An argument cannot carry a NUL byte; cut short it would be another argument.
    if (words.empty() || std::any_of(words.begin(), words.end(), HasNulByte)) {
        return RUN_NOT_STARTED;
    }
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return RUN_NOT_STARTED;
    }
    FileDescriptor readEnd(ends[0]);
    FileDescriptor writeEnd(ends[1]);
    // Only this end: the program must find an ordinary, blocking standard output.
    fcntl(readEnd.Get(), F_SETFL, O_NONBLOCK);

    SpawnPlan plan;
    plan.DetachFromCaller();
    plan.RedirectStandardFiles(writeEnd.Get());
    pid_t pid = 0;
    if (!SpawnConfined(plan, words, pid)) {
        return RUN_NOT_STARTED;
    }
    writeEnd.Reset();
    return WaitReading(pid, readEnd, output, maxOutput, timeoutMs);
}

} // namespace SDK
