#pragma once

#include "framework/Module.h"
#include "framework/ModuleInspector.h"

namespace Engine {

// The sibling module that tells of file accesses: the task "filenotify_task", which needs no policy and
// asks nothing of the kernel until a task wants to watch.
class FileNotifyModule : public Framework::Module {
public:
    static constexpr const char* NAME = "filenotify";

    FileNotifyModule();

    int Init() override;
};

// Answers questions about the watches.
//
//   {"query": "status"}
//       -> {"watchers": [{"task", "marks", "failed_marks"}]}
class FileNotifyInspector : public Framework::ModuleInspector {
public:
    Json::Value Ask(const Json::Value& request) override;
};

} // namespace Engine
