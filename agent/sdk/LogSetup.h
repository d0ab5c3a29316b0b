#pragma once

#include <cstdint>
#include <string>

namespace SDK {

// The agent's one log.
struct LogSettings {
    std::string filePath;              // the text log; empty: no file
    std::string level = "information"; // a name from "fatal" to "trace", "none", or Poco's number 0 to 8
    std::uint64_t maxBytes = 10485760; // the file is put aside (NAME.0, NAME.1, …) when it reaches this size
    int files = 5;                     // how many files that were put aside are kept
    bool console = false;              // also to standard error
};

// Leads every logger, those that exist and those to come, to the places that `settings` name. A
// record is one line: time (UTC), priority, logger, source file and line, text; control characters
// in the text are escaped. On standard error the line has the form that journald understands
// ("<3>…", sd-daemon(3)) when it is journald that reads it.
//
// Meant for start-up, before other threads log. Returns 0, EINVAL for a level that is none or a
// number of files or bytes below 1, else the errno value of opening the file; on failure nothing is
// changed.
int SetUpLogging(const LogSettings& settings);

} // namespace SDK
