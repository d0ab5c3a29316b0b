// storm DONE COUNT|SECONDSs AT_ONCE [PROGRAM [ARGUMENT…]] [-- PROGRAM …]…
//
// Starts COUNT children, or as many as it can in so many seconds ("60s"), as fast as it can with AT_ONCE of them
// running at a time. They are started from the programs in turn; programs are separated by "--". Without one a
// child ends at once. When the last one has ended it writes to the file DONE how many there were, and how many of
// them did not end with status 0. Exit status 1, with a line on standard error, when it cannot start one.

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Command = std::vector<char*>;

std::vector<Command> ReadCommands(char** words) {
    std::vector<Command> commands;
    Command command;
    for (; *words != nullptr; ++words) {
        if (std::strcmp(*words, "--") != 0) {
            command.push_back(*words);
            continue;
        }
        command.push_back(nullptr);
        commands.push_back(command);
        command.clear();
    }
    if (!command.empty()) {
        command.push_back(nullptr);
        commands.push_back(command);
    }
    return commands;
}

class Storm {
public:
    Storm(const std::string& extent, int atOnce, std::vector<Command> commands)
        : mCommands(std::move(commands)), mAtOnce(atOnce) {
        if (extent.ends_with('s')) {
            mEnd = Clock::now() + std::chrono::seconds(std::atol(extent.c_str()));
        } else {
            mCount = std::atol(extent.c_str());
        }
    }

    bool Blow() {
        while (mStarted < mCount && Clock::now() < mEnd) {
            if (mRunning == mAtOnce) {
                AwaitOne();
            }
            if (!StartOne()) {
                std::cerr << "storm: cannot fork: " << std::strerror(errno) << '\n';
                return false;
            }
        }
        while (mRunning > 0) {
            AwaitOne();
        }
        return true;
    }

    long CountStarted() const { return mStarted; }
    long CountFailed() const { return mFailed; }

private:
    bool StartOne() {
        // The child shares this one's memory until it executes or ends, which is what makes a storm of it.
        const pid_t child = vfork();
        if (child == 0) {
            if (!mCommands.empty()) {
                const Command& command = mCommands[static_cast<std::size_t>(mStarted) % mCommands.size()];
                execv(command[0], command.data());
                _exit(127);
            }
            _exit(0);
        }
        mStarted += child > 0 ? 1 : 0;
        mRunning += child > 0 ? 1 : 0;
        return child > 0;
    }

    void AwaitOne() {
        int status = 0;
        if (waitpid(-1, &status, 0) > 0) {
            --mRunning;
            mFailed += status != 0 ? 1 : 0;
        }
    }

    const std::vector<Command> mCommands;
    const int mAtOnce;
    long mCount = 1L << 40;
    Clock::time_point mEnd = Clock::time_point::max();
    long mStarted = 0;
    long mFailed = 0;
    int mRunning = 0;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 4 || std::atoi(argv[3]) < 1) {
        std::cerr << "usage: storm DONE COUNT|SECONDSs AT_ONCE [PROGRAM [ARGUMENT...]] [-- PROGRAM ...]...\n";
        return 1;
    }
    Storm storm(argv[2], std::atoi(argv[3]), ReadCommands(argv + 4));
    const bool done = storm.Blow();
    std::ofstream(argv[1]) << storm.CountStarted() << ' ' << storm.CountFailed() << '\n';
    return done ? 0 : 1;
}
