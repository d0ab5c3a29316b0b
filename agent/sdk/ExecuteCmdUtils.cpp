#include "sdk/ExecuteCmdUtils.h"

#include <vector>

#include "agent/sdk/ChildProgram.h"
#include "agent/sdk/ClaimedFiles.h"
#include "agent/sdk/CommandLine.h"

namespace SDK {

int ExecuteCmdUtils::ExecuteCmd(const std::string& command, std::string& output, std::size_t maxOutput) {
    output.clear();
    std::vector<std::string> words;
    if (!SplitCommandLine(command, words)) {
        return -1;
    }
    const ClaimedFiles temporaries(words);
    return temporaries.AreHeld() ? RunProgram(words, output, maxOutput, TIMEOUT_MS) : RUN_NOT_STARTED;
}

} // namespace SDK
