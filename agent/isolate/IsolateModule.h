#pragma once

#include "framework/Module.h"

namespace Engine {

// The sibling module that acts on processes and files: the task "isolate_task", which needs no policy.
class IsolateModule : public Framework::Module {
public:
    static constexpr const char* NAME = "isolate";

    IsolateModule();

    int Init() override;
};

} // namespace Engine
