#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Ctl {

enum class Severity {
    ERROR,   // the policy is refused, or its feature does not run as it says
    DANGER,  // accepted, with an effect that may surprise
    WARNING, // accepted, but probably not what was meant
};

// "error", "danger", "warning".
const char* NameOf(Severity severity);

// What is wrong with one place of a feature policy.
struct PolicyProblem {
    Severity severity = Severity::ERROR;
    std::string pointer; // RFC 6901; empty for the whole document
    std::string reason;
    bool refused = false; // the daemon refuses the policy because of it
    // Where the text stops being JSON, in bytes from 1; 0 otherwise.
    std::size_t line = 0;
    std::size_t column = 0;
};

// All problems of a policy, the worst first, as the daemon of this host would meet them: directories are
// looked up here. The text has no comments (ReadPolicy). There is an error exactly when
// the daemon refuses the policy or cannot make use of all of it.
std::vector<PolicyProblem> CheckPolicy(const std::string& text);

} // namespace Ctl
