#pragma once

#include <cstdint>
#include <string>

namespace Daemon {

// The agent's own settings, conf/agent.json; every member may be left out:
//
//   {
//     "scope": {"cgroup": "/name"},       a control group (v2); without one the whole machine
//     "cpu_budget_percent": 50,           of one core; 0 = no budget
//     "log": {
//       "level": "information",           fatal critical error warning notice information debug trace
//       "max_bytes": 10485760,            size at which a log file is closed and a new one begun
//       "files": 5,                       how many closed ones are kept
//       "console": false                  also log to standard error
//     }
//   }
struct Settings {
    std::string cgroup;
    int cpuBudgetPercent = 0;
    std::string logLevel = "information";
    std::uint64_t logMaxBytes = 10U << 20U;
    int logFiles = 5;
    bool logConsole = false;

    // Reads the file; a missing one gives the defaults. False, with one line in `reason` that names
    // the member at fault, when the file cannot be read, is no JSON object, has a member that is not
    // in the list above, or a value that its member cannot have. Then `settings` is untouched.
    static bool Load(const std::string& path, Settings& settings, std::string& reason);
};

} // namespace Daemon
