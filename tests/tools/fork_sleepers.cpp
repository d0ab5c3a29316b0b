// fork_sleepers COUNT [light]
//
// Forks COUNT children that do nothing, and waits until it is killed. The children die with it. Exit
// status 1, with a line on standard error, when it cannot.
//
// "light": the children share its memory, files and signal handlers. They are processes all the same, each with a
// number of its own, and take the kernel some 20 KiB instead of 150. Those that end are not kept to be waited for,
// and SIGTERM ends them all before it ends their parent: so many are not to be left to the init process.

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string_view>
#include <vector>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

pid_t ForkSleeper() {
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The parent may have died before.
        while (getppid() == parent) {
            pause();
        }
        _exit(0);
    }
    return child;
}

// In a child that shares everything, on a stack of its own that holds little more than a call.
int SleepForever(void* /*unused*/) {
    syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        syscall(SYS_pause);
    }
}

pid_t ForkLightSleeper() {
    constexpr std::size_t STACK_BYTES = 1024;
    constexpr int SHARED = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND;
    // Has the dynamic linker look the function up, which takes more than such a stack holds.
    syscall(SYS_getpid);
    char* const stack = new char[STACK_BYTES]; // for as long as the process lives
    return clone(SleepForever, stack + STACK_BYTES, SHARED | SIGCHLD, nullptr);
}

void WaitForSignal(int signal) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, signal);
    int received = 0;
    sigwait(&awaited, &received);
}

// The last call returns when the last child has gone.
void EndAll(const std::vector<pid_t>& children) {
    for (const pid_t child : children) {
        kill(child, SIGKILL);
    }
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool light = argc == 3 && std::string_view(argv[2]) == "light";
    if (argc != 2 && !light) {
        std::cerr << "usage: fork_sleepers COUNT [light]\n";
        return 1;
    }
    if (light) {
        signal(SIGCHLD, SIG_IGN);
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
    }
    std::vector<pid_t> children;
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        const pid_t child = light ? ForkLightSleeper() : ForkSleeper();
        if (child <= 0) {
            std::cerr << "fork_sleepers: no more processes\n";
            EndAll(children);
            return 1;
        }
        children.push_back(child);
    }
    if (light) {
        WaitForSignal(SIGTERM);
        EndAll(children);
        return 0;
    }
    for (;;) {
        pause();
    }
}
