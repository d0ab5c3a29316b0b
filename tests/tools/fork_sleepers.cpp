// fork_sleepers COUNT
//
// Forks COUNT children that do nothing, and waits until it is killed. The children die with it. Exit
// status 1, with a line on standard error, when it cannot.

#include <csignal>
#include <cstdlib>
#include <iostream>

#include <sys/prctl.h>
#include <unistd.h>

namespace {

bool ForkSleeper() {
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
    return child > 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: fork_sleepers COUNT\n";
        return 1;
    }
    for (int left = std::atoi(argv[1]); left > 0; --left) {
        if (!ForkSleeper()) {
            std::cerr << "fork_sleepers: no more processes\n";
            return 1;
        }
    }
    for (;;) {
        pause();
    }
}
