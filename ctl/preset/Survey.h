#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ctl/preset/Candidate.h"
#include "ctl/preset/HostRoot.h"
#include "ctl/preset/PresetDocument.h"

namespace Ctl::Preset {

// The executables of a host, with their digests.
struct Survey {
    struct Executable {
        std::string path; // on the host
        std::string origin;
        std::string sha256;
    };
    std::vector<Executable> executables; // in byte order of their paths, each path once
    std::vector<Remark> remarks;         // in byte order of their paths
    std::size_t looked = 0;              // files that were looked at
    std::size_t absent = 0;              // of the files that packages brought
    std::size_t unreadable = 0;          // left out, each with a remark
    std::size_t changedConffiles = 0;    // executables that the administrator has changed, each with a remark
    std::uint64_t bytes = 0;             // read for digests
};

// What stands for the package database among the sources of a survey.
extern const std::string FROM_DPKG;

// Looks at all files that the sources name (FROM_DPKG, or directories of the host), on `threads` threads,
// with a progress bar. The result does not depend on their number. Throws Failure when a source cannot
// be read at all, and when interrupted.
Survey ConductSurvey(HostRoot& host, const std::vector<std::string>& sources, unsigned threads);

// The entries of a preset list: one for each digest, for the first path that has it.
std::vector<Entry> ToEntries(const Survey& survey, const std::string& os);

} // namespace Ctl::Preset
