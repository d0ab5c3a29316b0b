#pragma once

#include <string>
#include <vector>

namespace Ctl::Preset {

struct BuildOptions {
    std::string hostRoot = "/";
    std::vector<std::string> sources; // FROM_DPKG or directories of the host; none: see each use
    std::string output;               // "-" is standard output
    std::string document;             // to verify
    unsigned jobs = 1;
    bool json = false;
    bool all = false; // of a verification, also the entries that are ok
};

// Makes a preset list of the sources, by default of the package database, and says what it came to and
// what its digest is: on standard output, on standard error when the list itself goes there. Throws
// Failure, with the output file as it was, when it cannot be made or would hold nothing.
void BuildPreset(const BuildOptions& options);

// Compares a preset list with the disk, and prints what differs; where there are sources also the
// executables in them that no entry vouches for. Throws Failure when anything differs.
void VerifyPreset(const BuildOptions& options);

} // namespace Ctl::Preset
