#pragma once

#include <string>

#include "sdk/RwLock.h"
#include "sdk/ThreadAnnotations.h"

namespace Daemon {

// Whether detection is wished, kept in a file ({"detect": true|false}) because the module itself
// forgets that it was on. Without a file nothing is wished. Thread-safe.
class Desired {
public:
    // Reads the file at once; one that cannot be understood counts as no wish and is logged.
    explicit Desired(std::string path);

    bool IsDetectionWished() const;

    // Remembers the wish here and in the file. A file that cannot be written is logged: the wish then
    // holds until the daemon ends, unless SaveAgain succeeds before.
    void WishDetection(bool wished);

    // Whether the file does not say what is wished.
    bool IsUnsaved() const;
    void SaveAgain();

private:
    int Save() REQUIRES(mLock);

    const std::string mPath;
    mutable SDK::RwLock mLock;
    bool mDetect GUARDED_BY(mLock) = false;
    bool mUnsaved GUARDED_BY(mLock) = false;
};

} // namespace Daemon
