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
    // Text from outside may be part of the command, so the program is held short: it has no environment but
    // PATH (its absolute folders, where it is looked up itself) and LC_ALL, gains no rights by executing a
    // file, and where the kernel has Landlock it can write to nothing that is not below /tmp.
    //
    // A word that is a path directly in /tmp and ends in "." and the calling process's id is a temporary file
    // of the caller's: whatever lies there is removed first, and an empty file of the caller's user (mode
    // 0600) lies there when the program begins. It is removed when it is still empty at the end. Where that
    // name cannot be had, the program is not started.
    //
    // Returns the exit status (0 to 255), 128 + N when signal N ended it, 127 when the program
    // cannot be started, -1 when the command has no words or an open quote.
    static int ExecuteCmd(const std::string& command, std::string& output, std::size_t maxOutput);
};

} // namespace SDK
