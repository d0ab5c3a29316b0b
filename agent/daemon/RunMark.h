#pragma once

#include <string>

namespace Daemon {

// Tells the next start how this run ended: a file that is there from the begin of a run to its orderly end. One that
// is still there at the start was left by a run that was killed, crashed, or went down with the machine.
//
// One thread; while it lives, nobody else runs in the same root.
class RunMark {
public:
    // Makes the file, with the process id in it. Where that cannot be done, the next start learns nothing.
    explicit RunMark(std::string path);
    // The orderly end.
    ~RunMark();
    RunMark(const RunMark&) = delete;
    RunMark& operator=(const RunMark&) = delete;

    // Whether the file was there already.
    bool WasLeft() const { return mWasLeft; }

    // The id of the process that left it; empty when it says none.
    const std::string& GetLeftBy() const { return mLeftBy; }

private:
    const std::string mPath;
    bool mWasLeft = false;
    std::string mLeftBy;
};

} // namespace Daemon
