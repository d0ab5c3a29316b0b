#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace Engine {

// What a record is matched by.
enum MatchType : std::int32_t {
    MATCH_UNSET = 0,
    MATCH_HASH = 1, // the content of the image
    MATCH_PATH = 2, // the path of a script that an interpreter runs
};

// One process, live or trusted. The same record is a row of the table of live processes (keyed by
// pid), of the local trust list (keyed by path) and of the server trust list (grouped by name).
struct ProcessInfo {
    ProcessInfo() = default;
    explicit ProcessInfo(std::int32_t processId) : pid(processId) {}

    std::int32_t pid = 0;             // 0 in trust lists
    std::int32_t ppid = 0;            // known from fork events only
    std::int32_t type = MATCH_UNSET;  // MatchType
    std::string path;                 // the image, or the script for MATCH_PATH
    std::string name;                 // its file name
    bool detailRetrieved = false;     // path and hash have been looked up, once and for all
    std::string hash;                 // SHA-256 of the file at `path`, lowercase hexadecimal
    bool exited = false;              // the process has ended; the next clean-up removes the row
    bool trusted = false;             // the decision taken when the record was made
    std::int64_t size = 0;            // bytes, as a trust list stored it
    std::string cmdline;              // arguments joined with blanks
    bool auditHit = false;            // the file audit has checked this process
    std::uint32_t fileEventCount = 0; // file events seen of it by the file audit
    std::time_t auditHitTime = 0;     // wall clock of the latest check, seconds
};

// One entry of a preset list; only the digest decides.
struct PresetProcessInfo {
    std::string filename;
    std::string sha256;
    std::string os;
    std::string version;
};

} // namespace Engine
