#include "ctl/policy/PolicyCheck.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

#include <json/value.h>

#include "ctl/Output.h"
#include "ctl/policy/FileRules.h"
#include "ctl/policy/PolicyKeys.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using enum Severity;
using SDK::JsonUtils;

constexpr const char* CONTENT = "/content";

// One reference token of a pointer (RFC 6901).
std::string EscapeToken(const std::string& key) {
    std::string token;
    for (const char c : key) {
        token += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return token;
}

std::string ToLower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// How many insertions, deletions and replacements of a character lead from one to the other.
std::size_t EditDistance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

bool LooksLike(const std::string& text, const std::string& meant) {
    constexpr std::size_t LONGEST = 64;
    constexpr std::size_t TYPING_ERRORS = 2;
    return text.size() <= LONGEST && EditDistance(ToLower(text), meant) <= TYPING_ERRORS;
}

bool IsOfType(const Json::Value& value, ValueType type) {
    switch (type) {
    case ValueType::OBJECT:
        return value.isObject();
    case ValueType::STRING:
        return value.isString();
    case ValueType::BOOLEAN:
        return value.isBool();
    case ValueType::INTEGER:
        return value.isInt();
    case ValueType::STRINGS:
        break;
    }
    return value.isArray();
}

std::string ToText(const Json::Value& value) {
    constexpr std::size_t ENOUGH = 60;
    const std::string text = JsonUtils::JsonToString(value);
    return text.size() <= ENOUGH ? text : text.substr(0, ENOUGH) + "...";
}

class PolicyChecker {
public:
    explicit PolicyChecker(const Json::Value& policy)
        : mPolicy(policy), mContent(Member(policy, "content")),
          mMode(JsonUtils::GetBoolValue(mContent, "dir_mod", false) ? PolicyMode::DIRECTORY : PolicyMode::GLOBAL) {}

    std::vector<PolicyProblem> Check() {
        CheckAll();
        std::stable_sort(mProblems.begin(), mProblems.end(),
                         [](const PolicyProblem& a, const PolicyProblem& b) { return a.severity < b.severity; });
        return std::move(mProblems);
    }

private:
    void CheckAll() {
        CheckIdentity("module_name");
        CheckIdentity("feature_name");
        CheckEnabled();
        CheckHash();
        CheckMembers(mPolicy, "");
        if (!mContent.isObject()) {
            Refuse(CONTENT, mPolicy.isMember("content") ? "is no object" : "is missing");
            return;
        }
        CheckLearningDays();
        CheckBlocking();
        if (mMode == PolicyMode::DIRECTORY) {
            const std::vector<PolicyProblem> fileRules = CheckFileRules(mContent);
            mProblems.insert(mProblems.end(), fileRules.begin(), fileRules.end());
        }
        CheckTasks();
    }

    void Add(Severity severity, const std::string& pointer, const std::string& reason) {
        mProblems.push_back({severity, pointer, reason});
    }

    void Refuse(const std::string& pointer, const std::string& reason) {
        mProblems.push_back({ERROR, pointer, reason + ": the policy is refused", true});
    }

    // ---- every key, by the table

    void CheckMembers(const Json::Value& object, const std::string& pointer) {
        for (const std::string& name : object.getMemberNames()) {
            const std::string place = pointer + "/" + EscapeToken(name);
            const PolicyKey* key = FindPolicyKey(place);
            if (key == nullptr) {
                AddUnknown(place, pointer, name);
            } else if (key->mode != PolicyMode::ANY && key->mode != mMode) {
                Add(WARNING, place,
                    std::string("is not read in ") + (mMode == PolicyMode::GLOBAL ? "global" : "directory") + " mode");
            } else {
                CheckMember(object[name], *key);
            }
        }
    }

    void CheckMember(const Json::Value& value, const PolicyKey& key) {
        if (key.type == ValueType::OBJECT) {
            if (value.isObject()) {
                CheckMembers(value, key.pointer);
            }
            return;
        }
        // Only scalars have a default to fall back on; what else there is has rules of its own.
        if (key.fallback.empty()) {
            return;
        }
        if (!IsOfType(value, key.type)) {
            Add(DANGER, key.pointer, ToText(value) + " is no " + NameOf(key.type) + ": it counts as " + key.fallback);
        } else if (key.type == ValueType::INTEGER && (value.asInt() < key.min || value.asInt() > key.max)) {
            Add(DANGER, key.pointer,
                ToText(value) + " is out of range (" + key.allowed + "): it counts as " + key.fallback);
        }
    }

    void AddUnknown(const std::string& place, const std::string& objectPointer, const std::string& name) {
        std::string reason = "is no key of a policy: it has no effect";
        for (const PolicyKey& key : GetPolicyKeys()) {
            if (GetLeaf(key.pointer) == name) {
                reason = "has no effect here: it belongs to " + key.pointer;
            }
        }
        for (const PolicyKey* key : GetKeysOf(objectPointer)) {
            if (LooksLike(name, GetLeaf(key->pointer))) {
                reason += "; did you mean \"" + GetLeaf(key->pointer) + "\"?";
                break;
            }
        }
        Add(WARNING, place, reason);
    }

    // ---- what the keys say

    // The document must name the module and the feature.
    void CheckIdentity(const char* name) {
        const PolicyKey& key = *FindPolicyKey(std::string("/") + name);
        const Json::Value value = Member(mPolicy, name);
        if (!mPolicy.isMember(name)) {
            Refuse(key.pointer, "is missing");
        } else if (!value.isString() || value.asString() != key.allowed) {
            Refuse(key.pointer, "is " + ToText(value) + " and not \"" + key.allowed + "\"");
        }
    }

    void CheckEnabled() {
        const std::string off = ": the feature is off, no task runs";
        if (!mPolicy.isMember("enabled")) {
            Add(DANGER, "/enabled", "is missing" + off);
            return;
        }
        const Json::Value value = Member(mPolicy, "enabled");
        if (!value.isString()) {
            return; // a wrong type is the table's concern
        }
        const std::string text = value.asString();
        if (text == "disabled") {
            Add(WARNING, "/enabled", "is \"disabled\"" + off);
        } else if (text != "enabled") {
            Add(DANGER, "/enabled",
                "is " + ToText(value) + " and not \"enabled\"" + off +
                    (LooksLike(text, "enabled") ? "; is it misspelled?" : ""));
        }
    }

    void CheckHash() {
        if (!mPolicy.isMember("feature_hash") || Member(mPolicy, "feature_hash") == Json::Value("")) {
            Add(WARNING, "/feature_hash", "is missing or empty: every delivery stops and restarts the tasks");
        }
    }

    void CheckLearningDays() {
        if (!mContent.isMember("learning_days")) {
            const PolicyKey& key = *FindPolicyKey("/content/learning_days");
            Add(WARNING, key.pointer, "is missing: it counts as " + key.fallback);
        }
    }

    void CheckBlocking() {
        if (!JsonUtils::GetBoolValue(mContent, "action_block", false)) {
            return;
        }
        std::string reason = "untrusted processes are killed and their images made unexecutable";
        if (mMode == PolicyMode::DIRECTORY) {
            reason += ", whoever touches a file that counts, however few programs are trusted";
        } else if (JsonUtils::GetBoolValue(mContent, "auto_detect", true)) {
            reason += ", with auto_detect as soon as learning is complete, without a look at what it would hit";
        }
        Add(DANGER, "/content/action_block", reason);
    }

    // ---- the tasks

    void CheckTasks() {
        if (mMode == PolicyMode::GLOBAL) {
            CheckTask("full_proc_task");
            CheckScanPeriod(CheckFullProcPeriod());
        } else {
            CheckTask("specified_file_audit_task");
        }
        CheckTask("process_manager_task");
        CheckTask("learn_status_check_task");
        for (const char* endless : {"specified_file_audit_task", "process_manager_task", "learn_status_check_task"}) {
            const PolicyKey& key = *FindPolicyKey(PointToPeriod(endless));
            if (const int period = PeriodOf(endless);
                period > 0 && (key.mode == PolicyMode::ANY || key.mode == mMode)) {
                Add(DANGER, key.pointer,
                    "the task begins only after " + Count(static_cast<std::size_t>(period), "second") +
                        " and then never ends: leave the period out");
            }
        }
    }

    // The rules of the framework: a task's object holds a condition, and a period is at least a second.
    void CheckTask(const std::string& name) {
        if (!mContent.isMember(name)) {
            return;
        }
        const std::string pointer = std::string(CONTENT) + "/" + name;
        const Json::Value task = Member(mContent, name.c_str());
        const std::string consequence = ": this task, and those whose turn comes after it, run without a condition";
        if (!task.isObject() && !task.isArray()) {
            Add(DANGER, pointer,
                ToText(task) + " is no object, yet accepted: the task runs as with an empty condition");
        } else if (!task.isObject() || !task.isMember("task_condition")) {
            Add(ERROR, pointer, "has no \"task_condition\"" + consequence);
        } else if (const Json::Value condition = Member(task, "task_condition"); !condition.isObject()) {
            Add(ERROR, pointer + "/task_condition", ToText(condition) + " is no object" + consequence);
        } else if (condition.isMember("period") && PeriodOf(name) < 1) {
            Add(ERROR, PointToPeriod(name),
                ToText(Member(condition, "period")) + " is no integer of 1 or more" + consequence);
        }
    }

    // The period in seconds, 0 for none. Without one, what is learned is not kept.
    int CheckFullProcPeriod() {
        const int period = PeriodOf("full_proc_task");
        if (period < 1) {
            Add(DANGER, "/content/full_proc_task",
                "has no period: the task runs once, and what is learned after that is not kept");
        }
        return period;
    }

    void CheckScanPeriod(int period) {
        const PolicyKey& key = *FindPolicyKey("/content/scan_period_seconds");
        const int seconds = JsonUtils::GetIntValue(mContent, "scan_period_seconds", std::stoi(key.fallback));
        if (period > 0 && seconds < period) {
            Add(DANGER, key.pointer,
                std::to_string(seconds) + " is less than the period of full_proc_task, " + std::to_string(period) +
                    ": the running processes are never reported");
        } else if (period > 0 && seconds % period != 0) {
            Add(WARNING, key.pointer,
                std::to_string(seconds) + " is no multiple of the period of full_proc_task, " + std::to_string(period) +
                    ": it counts as " + std::to_string(seconds - seconds % period));
        }
    }

    static std::string PointToPeriod(const std::string& task) {
        return std::string(CONTENT) + "/" + task + "/task_condition/period";
    }

    // As the framework reads it; 0 when there is no usable one.
    int PeriodOf(const std::string& task) const {
        const int period =
            JsonUtils::GetIntValue(Member(Member(mContent, task.c_str()), "task_condition"), "period", 0);
        return std::max(period, 0);
    }

    const Json::Value& mPolicy;
    const Json::Value mContent;
    const PolicyMode mMode;
    std::vector<PolicyProblem> mProblems;
};

} // namespace

const char* NameOf(Severity severity) {
    return severity == ERROR ? "error" : severity == DANGER ? "danger" : "warning";
}

std::vector<PolicyProblem> CheckPolicy(const std::string& text) {
    Json::Value policy;
    JsonUtils::Fault fault;
    if (JsonUtils::ParseJsonStr(text, policy, fault) != 0) {
        return {{ERROR, "", "no JSON: " + fault.reason, true, fault.line, fault.column}};
    }
    if (!policy.isObject()) {
        return {{ERROR, "", "is an array and no object: the policy is refused", true}};
    }
    return PolicyChecker(policy).Check();
}

} // namespace Ctl
