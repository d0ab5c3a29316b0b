#pragma once

namespace Engine {

// The types of the whitelist module's reports (Framework::DataMessage).
inline constexpr const char* REPORT_FULL_LIST = "whitelist_2";
inline constexpr const char* REPORT_NEW_PROCESSES = "whitelist_3";
inline constexpr const char* REPORT_ALERT = "whitelist_4";
inline constexpr const char* REPORT_RUN_ERROR = "whitelist_5";
inline constexpr const char* REPORT_LEARN_STATUS = "whitelist_6";

} // namespace Engine
