#pragma once

#include <optional>
#include <string>

#include "agent/daemon/Desired.h"
#include "agent/daemon/Modules.h"
#include "framework/Engine.h"

namespace Daemon {

// The keys that lead to the module whose mode this is about.
constexpr const char* POLICY_KEY = "10001";
constexpr const char* RESET_LEARNING_KEY = "whitelist_10004";
constexpr const char* START_DETECT_KEY = "whitelist_10005";

// The module's modes, as its inspector tells them.
enum Mode : int { MODE_STOPPED = 0, MODE_LEARNING = 1, MODE_LEARNED = 2, MODE_DETECTING = 3 };

// Keeps detection going: it learns from the operator's commands whether detection is wished, and makes
// fact follow wish by issuing the server's own commands, which say nothing about the wish.
//
// For the delivery thread only.
class Detection {
public:
    Detection(Framework::Engine& engine, Desired& desired) : mEngine(engine), mDesired(desired) {}

    // After an operator's command: a start that left the module detecting sets the wish; a reset of learning that was
    // done withdraws it. One that was not is turned into a refusal with the reason.
    void LearnFrom(const std::string& key, Framework::Engine::Outcome& outcome);

    // After a start or a policy delivery: brings the module from mode 0 or 2 to detection when that
    // is wished and the feature is enabled.
    void Fulfil();

    // While IsAwaited: starts detection once the module's own clock has completed learning.
    void StartWhenLearned();

    // True while detection is wished and possible but not on yet.
    bool IsAwaited() const;

private:
    std::optional<int> ReadMode(std::string& reason) const;
    bool IsPossible() const;
    void Issue(const char* key, const char* what);
    void LearnFromStart(Framework::Engine::Outcome& outcome);
    void LearnFromReset(Framework::Engine::Outcome& outcome);

    Framework::Engine& mEngine;
    Desired& mDesired;
};

} // namespace Daemon
