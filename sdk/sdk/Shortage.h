#pragma once

#include <cstdint>

namespace SDK {

// Keeps account of what the agent could not look at because there was no file descriptor or no memory to be had.
//
// Such a failure says nothing about what was asked: a process that cannot be looked at for want of a descriptor is
// not one that is gone. Whoever meets one notes it here; whoever draws conclusions from looking asks whether any was
// noted in between, and looks again later. The operator is told by one log record a second at most, and by the
// counter "resources.short" in `status`.
//
// Thread-safe.
class Shortage {
public:
    // Notes the failure if `error` (errno) is a shortage: EMFILE, ENFILE or ENOMEM. Returns `error`.
    static int Note(int error);

    // How many were noted: in all, and by the calling thread.
    static std::uint64_t Count();
    static std::uint64_t CountOfThread();
};

} // namespace SDK
