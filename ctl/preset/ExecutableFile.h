#pragma once

#include <cstdint>
#include <string>

namespace Ctl::Preset {

// What a look at one file came to.
struct FileLook {
    enum Kind {
        EXECUTABLE,
        OTHER,      // nothing that can be executed, links included
        ABSENT,     // there is no such file
        UNREADABLE, // `error` says why
    };
    Kind kind = OTHER;
    int error = 0;           // an errno value
    std::uint64_t bytes = 0; // the size of an executable
};

// Tells what execve(2) takes: a regular file with an executable bit that is an ELF program or a shared
// object (which position-independent programs are, too), or begins with "#!". A link at the path's end is
// not followed, and nothing is waited for. Any thread.
FileLook LookAt(const std::string& path);

// The digest that an agent computes of the file; 0 or an errno value. Any thread.
int DigestProgram(const std::string& path, std::string& sha256);

} // namespace Ctl::Preset
