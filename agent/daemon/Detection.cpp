#include "agent/daemon/Detection.h"

#include <algorithm>

#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

// What the module logs when it cannot write the beginning of learning down: all stays as it was.
constexpr const char* RESET_FAILED = "ResetLearnModule Set file error";

std::string JoinLines(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : "; ") + line;
    }
    return text;
}

} // namespace

std::optional<int> Detection::ReadMode(std::string& reason) const {
    const Json::Value status = AskModule(mEngine, WHITELIST_MODULE);
    constexpr int UNKNOWN = -1;
    const int mode = SDK::JsonUtils::GetIntValue(status, "mode", UNKNOWN);
    if (mode == UNKNOWN) {
        reason = "the mode is not known: " + SDK::JsonUtils::GetStringValue(status, "error", "the module does not say");
        return std::nullopt;
    }
    return mode;
}

bool Detection::IsPossible() const {
    return SDK::JsonUtils::GetBoolValue(mEngine.GetPolicy(POLICY_KEY), "enabled", false);
}

void Detection::LearnFrom(const std::string& key, Framework::Engine::Outcome& outcome) {
    if (!outcome.accepted) {
        return;
    }
    if (key == START_DETECT_KEY) {
        LearnFromStart(outcome);
    } else if (key == RESET_LEARNING_KEY) {
        LearnFromReset(outcome);
    }
}

void Detection::LearnFromReset(Framework::Engine::Outcome& outcome) {
    const bool failed = std::any_of(outcome.notes.begin(), outcome.notes.end(), [](const std::string& note) {
        return note.find(RESET_FAILED) != std::string::npos;
    });
    if (failed) {
        outcome = {false, "learning was not reset: " + JoinLines(outcome.notes), {}};
    } else {
        mDesired.WishDetection(false);
    }
}

void Detection::LearnFromStart(Framework::Engine::Outcome& outcome) {
    std::string reason;
    const std::optional<int> mode = ReadMode(reason);
    if (mode == MODE_DETECTING) {
        mDesired.WishDetection(true);
        return;
    }
    if (mode) {
        reason = outcome.notes.empty() ? "the module is in mode " + std::to_string(*mode) : JoinLines(outcome.notes);
    }
    outcome = {false, "detection was not started: " + reason, {}};
}

void Detection::Fulfil() {
    if (!mDesired.IsDetectionWished() || !IsPossible()) {
        return;
    }
    std::string reason;
    std::optional<int> mode = ReadMode(reason);
    if (mode == MODE_STOPPED) {
        Issue(RESET_LEARNING_KEY, "reset learning, which is complete");
        mode = ReadMode(reason);
    }
    if (mode == MODE_LEARNED) {
        Issue(START_DETECT_KEY, "start detection");
    }
    if (!mode) {
        moduleLog.Error("detection is wished and cannot be started: %s", reason);
    }
}

void Detection::StartWhenLearned() {
    std::string reason;
    if (ReadMode(reason) == MODE_LEARNED) {
        Issue(START_DETECT_KEY, "start detection");
    }
}

bool Detection::IsAwaited() const {
    std::string reason;
    return mDesired.IsDetectionWished() && IsPossible() && ReadMode(reason) != MODE_DETECTING;
}

void Detection::Issue(const char* key, const char* what) {
    const Framework::Engine::Outcome outcome = mEngine.DeliverCommand(key, "");
    if (outcome.accepted) {
        moduleLog.Notice("detection is wished: issued [%s] to %s", key, what);
    } else {
        moduleLog.Error("detection is wished, but [%s] to %s was refused: %s", key, what, outcome.reason);
    }
}

} // namespace Daemon
