#pragma once

#include <cstdint>
#include <string>

#include "agent/sdk/LogSetup.h"

namespace Daemon {

// The agent's own settings, conf/agent.json; every member may be left out:
//
//   {
//     "scope": {"cgroup": "/name"},       a control group (v2); without one the whole machine
//     "cpu_budget_percent": 50,           of one core; 0 = no budget
//     "log": {
//       "target": "auto",                 auto: the journal when it reads standard error, else the file;
//                                         file; journal: lines for journald on standard error
//       "level": "information",           fatal critical error warning notice information debug trace
//       "max_bytes": 10485760,            size at which a log file is closed and a new one begun
//       "files": 5,                       how many closed ones are kept
//       "console": false                  also log to standard error
//     },
//     "metrics": {                        serve metrics on a TCP port of this machine's own
//       "address": "127.0.0.1",           a loopback address
//       "port": 9100                      has to be there
//     }
//   }
struct Settings {
    std::string cgroup;
    int cpuBudgetPercent = 0;
    SDK::LogTarget logTarget = SDK::LogTarget::AUTO;
    std::string logLevel = "information";
    std::uint64_t logMaxBytes = 10U << 20U;
    int logFiles = 5;
    bool logConsole = false;
    std::string metricsAddress = "127.0.0.1";
    int metricsPort = 0; // 0: not served

    // Reads the file; a missing one gives the defaults. False, with one line in `reason` that names
    // the member at fault, when the file cannot be read, is no JSON object, has a member that is not
    // in the list above, or a value that its member cannot have. Then `settings` is untouched.
    static bool Load(const std::string& path, Settings& settings, std::string& reason);
};

} // namespace Daemon
