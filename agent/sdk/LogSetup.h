#pragma once

#include <cstdint>
#include <string>

namespace SDK {

// Where the log goes, besides the console.
enum class LogTarget {
    AUTO,    // to the journal when journald reads standard error, as it does of a service; else to the file
    FILE,    // to the file
    JOURNAL, // to standard error, in the form that journald understands, whoever reads it
};

// The agent's one log.
struct LogSettings {
    LogTarget target = LogTarget::AUTO;
    std::string filePath;              // the text log; empty: no file
    std::string level = "information"; // a name from "fatal" to "trace", "none", or Poco's number 0 to 8
    std::uint64_t maxBytes = 10485760; // the file is put aside (NAME.0, NAME.1, …) when it reaches this size
    int files = 5;                     // how many files that were put aside are kept
    bool console = false;              // also to standard error
};

// Leads every logger, those that exist and those to come, to the places that `settings` name. A
// record is one line: time (UTC), priority, logger, source file and line, text; control characters
// in the text are escaped.
//
// To the journal leads standard error, whose lines have the form that journald understands ("<3>…",
// sd-daemon(3)) when it is journald that reads them. That needs no library and no second connection,
// outlives a restart of journald, keeps the order of the records and the lines of child programs, and a
// record can forge nothing: it has no newline, and the priority is all that the form has. With the journal
// as the target there is no file, and `console` adds nothing.
//
// Meant for start-up, before other threads log. Returns 0, EINVAL for a level that is none or a
// number of files or bytes below 1, else the errno value of opening the file; on failure nothing is
// changed.
int SetUpLogging(const LogSettings& settings);

} // namespace SDK
