#pragma once

#include <string>

#include <Poco/Logger.h>

namespace SDK {

// The agent's registry of loggers. All of them write to the agent's one log.
//
// Thread-safe. Loggers live until the process ends, so a pointer may be kept.
class LoggerUtils {
public:
    static LoggerUtils* GetInstance();

    // The logger of that name, created at first use with the agent's level and channel.
    // `console` additionally sends the logger's records to standard error, whatever the agent's own
    // setting. Returns null, and never throws, when the logger cannot be had.
    Poco::Logger* GetModuleLogger(const std::string& name, bool console);

private:
    LoggerUtils() = default;
};

} // namespace SDK
