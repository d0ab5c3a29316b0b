#pragma once

#include <string>
#include <vector>

#include <Poco/AutoPtr.h>

#include "ProcessManager.h"
#include "support/AgentAround.h"
#include "support/FakeTasks.h"
#include "support/TempRoot.h"

namespace Bench {

// The trust engine in an agent that has nothing else to do: an empty root, the tasks that it talks to
// take what they are sent and drop it. One at a time.
class Agent {
public:
    enum class Mode { Learning, Directory };

    // In directory mode the directories are the policy's.
    explicit Agent(Mode mode, const std::vector<std::string>& dirs = {});
    ~Agent();
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    TestSupport::TempRoot root;
    TestSupport::AgentAround around;
    Engine::ProcessManager& engine;

private:
    Poco::AutoPtr<TestSupport::IdleTask> mReporter;
};

} // namespace Bench
