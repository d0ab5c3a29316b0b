#pragma once

#include <string>

#include "framework/Module.h"
#include "framework/Policy.h"

namespace Engine {

// The application-whitelisting module as the framework sees it: what it registers, how it takes a
// policy, and the five server commands. It keeps no state of its own; that is ConfigManager's and
// ProcessManager's.
//
//     key               what it brings
//     10001             the feature policy
//     whitelist_10001   the server trust list
//     whitelist_10002   where the OS preset list is to be fetched
//     whitelist_10003   where the service preset list is to be fetched
//     whitelist_10004   learn again
//     whitelist_10005   leave learning, detect
//
// The handlers run on the framework's delivery thread.
class WhitelistModule : public Framework::Module {
public:
    WhitelistModule();
    ~WhitelistModule() override;

    // Registers the callbacks and finds the module's state. No task exists before the first policy.
    // Always 0.
    int Init() override;
    // Unregisters the callbacks, then ends the tasks.
    int UnInit() override;

    // Makes a policy from a feature policy document and registers the tasks that it asks for. Null when
    // the document is refused; the tasks may be registered by then. `current` is the installed policy or
    // null; it is marked superseded, never replaced here.
    Framework::Policy* RefreshFeaturePolicy(const std::string& key, const std::string& policyJson,
                                            Framework::Policy*& current);

    // Each takes the command's text. 0 when it was handed on, -1 when a list command came without text.
    int CmdMsgHandlerServerTrustList(const std::string& cmd);
    int CmdMsgHandlerOsPresetList(const std::string& cmd);
    int CmdMsgHandlerServicePresetList(const std::string& cmd);
    int CmdMsgHandlerResetLeaningStatus(const std::string& cmd);
    int CmdMsgHandlerStartDetect(const std::string& cmd);
};

} // namespace Engine
