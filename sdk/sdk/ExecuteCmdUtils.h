#pragma once

#include <cstddef>
#include <string>

namespace SDK {

class ExecuteCmdUtils {
public:
    // The longest that a command may run before it is killed.
    static constexpr int TIMEOUT_MS = 30000;

    // Runs the program named by the first word of `command` (looked up in PATH) with the other words
    // as its arguments and waits for it. No shell is involved: blanks separate words, single and
    // double quotes group, a backslash outside single quotes takes the next byte as it is, and
    // nothing else has a meaning.
    //
    // `output` receives the first `maxOutput` bytes that the program writes to standard output; the
    // rest is read and dropped. Standard input and standard error are /dev/null.
    //
    // Returns the exit status (0 to 255), 128 + N when signal N ended it, 127 when the program
    // cannot be started, -1 when the command has no words or an open quote.
    static int ExecuteCmd(const std::string& command, std::string& output, std::size_t maxOutput);
};

} // namespace SDK
