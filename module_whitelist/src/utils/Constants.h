#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "modules/ReportTypes.h"
#include "modules/TrustLists.h"

namespace Engine {

// The file-notification module and its watch task, for whoever addresses them by name.
const std::string FILE_NOTIFY_MODULE_NAME = "filenotify";
const std::string FILE_WATCH_TASK_NAME = "filewatch";

// The kinds of namespace that a process has, as /proc/PID/ns names them.
const std::set<std::string> NAMESPACE_NAMES = {"ipc", "mnt", "net", "pid", "user", "uts"};

// The logger of every source file of the module.
inline constexpr const char* LOGGER_NAME = "module_whitelist";

// The module's name, in its policy and to the CPU governor.
inline constexpr const char* MODULE_NAME = "whitelist_module";
inline constexpr const char* FEATURE_NAME = "whitelist_feature";

inline constexpr const char* PROCESS_MANAGER_TASK = "process_manager_task";
inline constexpr const char* FULL_PROC_TASK = "full_proc_task";
inline constexpr const char* LEARN_STATUS_CHECK_TASK = "learn_status_check_task";
inline constexpr const char* SPECIFIED_FILE_AUDIT_TASK = "specified_file_audit_task";

// Tasks of other modules that this one talks to.
inline constexpr const char* REPORT_TASK = "data_comm_report_task";
inline constexpr const char* ISOLATE_TASK = "isolate_task";
inline constexpr const char* PROCS_REAL_TASK = "procs_real_task";
inline constexpr const char* PROCS_FULL_TASK = "procs_full_task";
inline constexpr const char* FILE_NOTIFY_TASK = "filenotify_task";

// No file is read, and no digest covers, more than this.
inline constexpr std::uint64_t MAX_FILE_BYTES = TRUST_MAX_FILE_BYTES;

} // namespace Engine
