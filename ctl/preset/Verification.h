#pragma once

#include <string>
#include <vector>

#include "ctl/preset/HostRoot.h"
#include "ctl/preset/PresetDocument.h"
#include "ctl/preset/Survey.h"

namespace Ctl::Preset {

// How one file of the disk stands to a preset list.
struct Finding {
    enum State {
        OK,         // it has the entry's digest
        CHANGED,    // it has another one
        MISSING,    // there is none at the entry's path
        UNREADABLE, // `reason` says why
        NEW,        // an executable whose digest no entry has, at a path that none has
    };
    State state = OK;
    std::string path;
    std::string expected{}; // the entry's digest; empty for NEW
    std::string found{};    // the file's digest, where it could be read
    std::string reason{};
};

// "ok", "changed", "missing", "unreadable", "new".
const char* NameOf(Finding::State state);

// Looks for the file of every entry, in their order, on `threads` threads with a progress bar. Throws
// Failure when interrupted.
std::vector<Finding> CompareWithDisk(const HostRoot& host, const std::vector<Entry>& entries, unsigned threads);

// The executables that no entry vouches for, without those that changed.
std::vector<Finding> FindNew(const Survey& survey, const std::vector<Entry>& entries);

} // namespace Ctl::Preset
