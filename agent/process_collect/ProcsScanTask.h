#pragma once

#include "modules/ProcsFullTask.h"

namespace Engine {

// The task "procs_full_task": answers GetProcsMap on the caller's thread from a fresh look at /proc. Its
// own thread only waits for its end.
class ProcsScanTask : public ProcsFullTask {
public:
    static constexpr const char* NAME = "procs_full_task";

    ProcsScanTask();

    int Run() override;

    // A process that ends while it is looked at is left out.
    ProcsMap GetProcsMap() const override;
};

} // namespace Engine
