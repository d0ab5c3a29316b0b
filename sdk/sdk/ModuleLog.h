#pragma once

#include <atomic>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Message.h>

#include "sdk/LogTap.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace SDK {

// A format text together with the place it was written at.
struct LogText {
    // Implicit, so that a call site passes nothing but the text.
    LogText(const char* text, const char* sourceFile = __builtin_FILE(), int sourceLine = __builtin_LINE())
        : format(text), file(sourceFile), line(sourceLine) {}

    const char* format;
    const char* file;
    int line;
};

// The log call, one form for every source file:
//
//     static SDK::ModuleLog moduleLog("module_whitelist");
//     moduleLog.Error("read [%s] failed.", path);
//
// The logger is fetched at the first record and kept. Formats are Poco::format's: %s takes text,
// %d an int, %ld a long, %z a size_t. Records carry the base name of the source file and the line.
// A record that the level does not admit costs no formatting. Never throws: a record that cannot
// be built or written is dropped. Thread-safe.
class ModuleLog {
public:
    explicit constexpr ModuleLog(const char* loggerName) : mLoggerName(loggerName) {}

    template <typename... Args> void Fatal(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_FATAL, text, args...);
    }
    template <typename... Args> void Error(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_ERROR, text, args...);
    }
    template <typename... Args> void Warning(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_WARNING, text, args...);
    }
    template <typename... Args> void Notice(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_NOTICE, text, args...);
    }
    template <typename... Args> void Information(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_INFORMATION, text, args...);
    }
    template <typename... Args> void Debug(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_DEBUG, text, args...);
    }
    template <typename... Args> void Trace(LogText text, const Args&... args) const {
        Write(Poco::Message::PRIO_TRACE, text, args...);
    }

private:
    template <typename... Args>
    void Write(Poco::Message::Priority priority, const LogText& text, const Args&... args) const {
        try {
            Poco::Logger* logger = GetLogger();
            if (logger == nullptr || !logger->is(priority)) {
                return;
            }
            const std::vector<Poco::Any> values{ToAny(args)...};
            std::string record;
            Poco::format(record, text.format, values);
            LogTap::Offer(priority, record);
            const std::string fileName = PathUtils::GetFileNameFromPath(text.file);
            logger->log(Poco::Message(logger->name(), record, priority, fileName.c_str(), text.line));
        } catch (...) {
            // A record that cannot be written must not disturb the work it speaks of.
            return;
        }
    }

    // Poco::format's %s takes std::string and nothing that merely converts to it.
    template <typename T> static Poco::Any ToAny(const T& value) {
        if constexpr (std::is_convertible_v<const T&, const char*>) {
            const char* text = value;
            return Poco::Any(std::string(text == nullptr ? "" : text));
        } else {
            return Poco::Any(value);
        }
    }

    // Every thread that finds the pointer empty stores the same one, so no lock is needed.
    Poco::Logger* GetLogger() const {
        Poco::Logger* logger = mLogger.load(std::memory_order_acquire);
        if (logger == nullptr) {
            logger = LoggerUtils::GetInstance()->GetModuleLogger(mLoggerName, false);
            mLogger.store(logger, std::memory_order_release);
        }
        return logger;
    }

    const char* mLoggerName;
    mutable std::atomic<Poco::Logger*> mLogger{nullptr};
};

} // namespace SDK
