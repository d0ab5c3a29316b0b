// start_in_scope CGROUP_DIR WAIT_MS PROGRAM [ARGUMENT…]
//
// Starts the program inside the control group, waits for its end, and prints one line:
//
//     PID OUTCOME MICROSECONDS
//
// OUTCOME is "killed" (by SIGKILL), "ended", or "alive" when it still ran after WAIT_MS; then it is
// killed by this program. MICROSECONDS run from the exec to the end or to the giving up.
// Standard input is passed on. Exit status 0, or 1 with a line on standard error.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "support/ScopedProcess.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: start_in_scope CGROUP_DIR WAIT_MS PROGRAM [ARGUMENT...]\n";
        return 1;
    }
    try {
        using namespace TestSupport;
        const std::chrono::milliseconds wait(std::atoi(argv[2]));
        ScopedProcess process(argv[1], std::vector<std::string>(argv + 3, argv + argc), STDIN_FILENO);
        const bool ended = process.Wait(wait);
        const auto lifetime = ended ? process.Lifetime() : std::chrono::microseconds(wait);
        std::cout << process.Pid() << ' '
                  << (!ended                ? "alive"
                      : process.WasKilled() ? "killed"
                                            : "ended")
                  << ' ' << lifetime.count() << std::endl;
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << "start_in_scope: " << failure.what() << '\n';
        return 1;
    }
}
