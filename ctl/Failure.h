#pragma once

#include <stdexcept>
#include <string>

namespace Ctl {

// How the program ends.
enum ExitStatus : int {
    EXIT_DONE = 0,
    EXIT_FAILED = 1, // refused or failed
    EXIT_BAD_USAGE = 2,
    EXIT_NO_DAEMON = 69, // EX_UNAVAILABLE of sysexits.h
};

// Ends the verb: one line that says what and why, and the exit status.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& text, ExitStatus status = EXIT_FAILED)
        : std::runtime_error(text), mStatus(status) {}

    ExitStatus GetStatus() const { return mStatus; }

private:
    ExitStatus mStatus;
};

} // namespace Ctl
