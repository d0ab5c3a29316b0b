#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Util/ServerApplication.h>
#include <json/value.h>

#include "framework/Module.h"
#include "framework/ModuleInspector.h"

namespace Framework {

// The running application: it loads the modules, owns them and through them their tasks, and hands
// them policies and commands, one after the other.
//
// There is at most one engine at a time. All operations but FindTask, CollectStatus and Ask are for
// the delivery thread: the one that calls them, or several that take turns (deliveries are
// serialised by a lock).
class Engine : public Poco::Util::ServerApplication {
public:
    // What became of a delivery.
    struct Outcome {
        bool accepted = false;
        // Why it was refused, in one line; empty when it was accepted.
        std::string reason;
        // Error records that the module logged on the way although it accepted.
        std::vector<std::string> notes;
    };

    Engine();
    ~Engine() override;
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // The running task of that name, the latest if there are several; null when there is none or no
    // engine. The result keeps the task object alive, not running. Thread-safe, any thread.
    static Poco::AutoPtr<Task> FindTask(const std::string& name);

    // Loads the library at `path` and creates its module (and inspector). False, with a log record and
    // the reason in `reason`, when that cannot be done. The module is not initialised yet.
    bool LoadModule(const std::string& path, std::string& reason);

    // Takes over a module that is already there, and its inspector if it has one. For tests and for
    // modules without a library. The inspector is deleted after the module was released.
    void AddModule(Module* module, ModuleInspector* inspector = nullptr);

    // Init of every module in the order of loading. Stops at the first that returns something else
    // than 0 and returns that.
    int InitModules();

    // UnInit of every module, last loaded first; then the modules are released.
    void UnInitModules();

    // Delivers a policy document under the key. A refused document leaves the installed policy in
    // force: where its tasks had already been stopped, it is delivered again.
    Outcome DeliverPolicy(const std::string& policyKey, const std::string& policyJson);

    // Delivers a server command under the key.
    Outcome DeliverCommand(const std::string& key, const std::string& text);

    // The installed policy of that key as {"hash", "enabled", "accepted_time", "document"}; null value
    // when there is none.
    Json::Value GetPolicy(const std::string& policyKey) const;

    // Asks the inspector of the module of that name. {"error": …} when it has none.
    Json::Value Ask(const std::string& moduleName, const Json::Value& request) const;

    // {"tasks": [{"name", "state", "depth", "capacity", "lost"}], "counters": {NAME: VALUE}}.
    Json::Value CollectStatus() const;

private:
    struct State;
    std::unique_ptr<State> mState;
};

} // namespace Framework
