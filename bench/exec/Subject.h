#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "system/Agent.h"

namespace Bench {

// The daemon as it is shipped, in a root and a control group of its own, detecting.
class Subject {
public:
    // The programs are trusted; every other one is killed if `block` says so, and reported in any case.
    Subject(const std::vector<std::string>& trusted, bool block);

    SystemTest::Agent& Agent() { return mAgent; }
    const std::string& Cgroup() const { return mAgent.Scope().Path(); }

    // Stopped, it costs nobody anything but the kernel's copies of the events; they wait for it.
    void Pause() const;
    void Resume() const;

    // A counter of `status`.
    std::int64_t Count(const std::string& counter) const;

    // Returns when nothing has been judged for a while. (How many will be is not known: a fork whose exec keeps
    // it waiting is judged as well.)
    void AwaitJudged() const;

    // Count and sum of the times from exec events to their verdicts.
    struct Verdicts {
        double count = 0;
        double seconds = 0;
    };
    Verdicts ReadVerdicts() const;

    // CPU time of all its threads.
    std::uint64_t ReadCpuNs() const;

private:
    SystemTest::Agent mAgent;
};

// CPU time of all threads of a process, in nanoseconds: the first field of /proc/PID/task/TID/schedstat.
std::uint64_t ReadCpuNs(int pid);

// A copy of a program, told from every other by its name at the end of it; filled up to `bytes` with zeros.
std::string CopyProgram(const std::string& original, const std::string& path, std::size_t bytes = 0);

// The programs of this bench.
std::string Exits();
std::string Stays();

} // namespace Bench
