#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace SDK {

// Results of RunProgram besides exit statuses, as shells give them.
constexpr int RUN_NOT_STARTED = 127;
constexpr int RUN_SIGNAL_BASE = 128;

// Runs `words[0]` (looked up in the absolute folders of PATH) with all of `words` as its arguments and waits
// until it ends.
//
// Of this process's environment it is given PATH alone, without what is no absolute folder, and LC_ALL=C. It
// can write below /tmp only (ConfineWritesToTemporaryFiles); where the kernel cannot see to that, a warning is
// logged once and the program runs all the same.
//
// `output` receives the first `maxOutput` bytes of its standard output; the rest is read and dropped.
// Standard input and error are /dev/null; no other descriptor and no signal setting of this process
// is passed on. The program leads a process group of its own. After `timeoutMs` that group, and
// nothing else, is killed. What the program leaves running in the background is not waited for.
//
// Returns the exit status, RUN_SIGNAL_BASE + N when signal N ended the program, RUN_NOT_STARTED when
// it cannot be started. The calling process must not ignore SIGCHLD. Thread-safe.
int RunProgram(const std::vector<std::string>& words, std::string& output, std::size_t maxOutput, int timeoutMs);

} // namespace SDK
