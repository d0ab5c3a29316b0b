#pragma once

#include <string>

namespace Engine {

// Why detection lets a program go without asking any list.
enum class Exemption {
    NONE,
    NO_IMAGE,           // the process is gone, or is the kernel's own
    OWN_PROCESS,        // the agent's own
    UNREADABLE,         // its image cannot be read
    PRELINK_NOT_UNDONE, // the digest before prelink rewrote the image cannot be had
    TRUSTED_AT_START,   // directory mode: a list vouched for it when the agent started
};

// What detection knows of an image before it asks the lists.
struct ImageExamination {
    bool prelinked = false;
    std::string digest{}; // what the lists are asked about: for a prelinked image that of the original
    Exemption exemption = Exemption::NONE;
};

} // namespace Engine
