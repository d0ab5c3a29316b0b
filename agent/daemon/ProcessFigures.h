#pragma once

namespace Daemon {

// What the agent's own process uses. A figure that the kernel does not tell is not a number (NaN).
struct ProcessFigures {
    double residentBytes;
    double virtualBytes;
    double cpuSeconds; // user and system, all threads
    double openFds;
    double maxFds;           // infinite where there is no limit
    double startTimeSeconds; // since the epoch

    static ProcessFigures Read();
};

} // namespace Daemon
