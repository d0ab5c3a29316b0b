#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>

#include "ctl/doctor/Machine.h"

namespace Ctl::Doctor {

enum class Grade { OK, WARNING, FAILURE };

// What one check came to. Texts may hold bytes of strangers; whoever prints them escapes them.
struct Finding {
    Grade grade = Grade::OK;
    std::string found;
    std::string remedy; // what to do about it; empty when nothing is to be done
};

inline Finding Ok(std::string found) {
    return {Grade::OK, std::move(found), ""};
}

inline Finding Warning(std::string found, std::string remedy) {
    return {Grade::WARNING, std::move(found), std::move(remedy)};
}

inline Finding Failed(std::string found, std::string remedy) {
    return {Grade::FAILURE, std::move(found), std::move(remedy)};
}

// What the last accepted policy asks for, as far as it decides what the agent needs.
struct Policy {
    bool accepted = false;
    bool directoryMode = false;
    bool blocks = false;
};

// What is being examined.
struct Subject {
    std::string root{}; // the installation, with a trailing "/"
    Machine machine{};
    Policy policy{};
    std::string scope{};       // the control group of conf/agent.json; empty when there is none
    Json::Value status{};      // the daemon's; null when it did not answer
    std::string noAnswer{};    // why not
    bool daemonMissing = true; // nobody listens at all, rather than somebody who does not answer

    bool HasDaemon() const { return status.isObject(); }

    // The daemon's process id; 0 when none answers.
    int DaemonPid() const;
};

// One line of the examination. `run` reads and never changes anything.
struct Check {
    std::string name;
    std::function<Finding(const Subject&)> run;
};

using Checks = std::vector<Check>;

// ---- by concern, each in the order of printing

// The kernel, its settings, this process's own rights and the clock.
Checks MachineChecks();

// The installation's files: disk space, rights, state files, the history.
Checks StateChecks();

// The daemon's process. Without a daemon the first of them says so, and the others are left out.
Checks DaemonChecks(const Subject& subject);

// What a daemon that answers says of itself: policy, detection, queues, losses.
Checks HealthChecks(const Subject& subject);

} // namespace Ctl::Doctor
