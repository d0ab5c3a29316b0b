#pragma once

#include "framework/Module.h"

namespace Engine {

// The sibling module that knows which processes run: the tasks "procs_real_task" and
// "procs_full_task", which need no policy.
class ProcessCollectModule : public Framework::Module {
public:
    static constexpr const char* NAME = "process_collect";

    ProcessCollectModule();

    // 77 (EX_NOPERM, sysexits.h), with one error record, when the kernel's process events cannot be
    // listened to: the agent can do none of its work without them.
    int Init() override;
};

} // namespace Engine
