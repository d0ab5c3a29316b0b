#include "ctl/policy/PolicyKeys.h"

#include <algorithm>

namespace Ctl {

namespace {

constexpr auto ANY = PolicyMode::ANY;
constexpr auto GLOBAL = PolicyMode::GLOBAL;
constexpr auto DIRECTORY = PolicyMode::DIRECTORY;

constexpr const char* ANY_PERIOD = "1 or more";
constexpr const char* LEAVE_OUT = "leave it out";
constexpr const char* LATE_START = "A period only makes the task begin that many seconds late, because its run has no "
                                   "end: without one it begins at once.";

// A task runs when its policy's condition says so.
void AddTask(std::vector<PolicyKey>& keys, PolicyMode mode, const std::string& name, const std::string& meaning,
             const std::string& initialCondition, const std::string& periodAllowed, const std::string& periodMeaning) {
    const std::string pointer = "/content/" + name;
    keys.push_back({pointer, ValueType::OBJECT, mode, R"({"task_condition":{}})",
                    R"({"task_condition": )" + initialCondition + "}", "", meaning});
    keys.push_back({pointer + "/task_condition", ValueType::OBJECT, mode, "", initialCondition, "",
                    "When the task runs: {\"period\": SECONDS} once at the end of every period, {} once, at the "
                    "start. Required in a task's object."});
    keys.push_back({pointer + "/task_condition/period", ValueType::INTEGER, mode, "", "", periodAllowed, periodMeaning,
                    1, std::numeric_limits<std::int32_t>::max()});
}

void AddIdentity(std::vector<PolicyKey>& keys) {
    keys.push_back({"/module_name", ValueType::STRING, ANY, "", R"("whitelist_module")", "whitelist_module",
                    "The module that the policy is for. Required; anything else is refused."});
    keys.push_back({"/feature_name", ValueType::STRING, ANY, "", R"("whitelist_feature")", "whitelist_feature",
                    "The feature that the policy is for. Required; anything else is refused."});
    keys.push_back(
        {"/enabled", ValueType::STRING, ANY, R"("")", R"("enabled")", "enabled or disabled",
         "\"enabled\", spelled exactly so, switches the feature on. With anything else the policy is accepted "
         "and no task runs: nothing is learned, judged or blocked."});
    keys.push_back({"/feature_hash", ValueType::STRING, ANY, R"("")", R"("policy-1")", "",
                    "The policy's version tag. A policy with the tag of the one in force changes nothing, so give "
                    "every edition a new one. Without a tag every delivery stops and restarts the tasks."});
}

void AddSettings(std::vector<PolicyKey>& keys) {
    keys.push_back({"/content", ValueType::OBJECT, ANY, "", "", "", "The settings. Required."});
    keys.push_back({"/content/learning_days", ValueType::INTEGER, ANY, "7", "7", "1 to 30",
                    "How long the agent learns, in days of running time: while it learns, every program that it sees "
                    "becomes trusted.",
                    1, 30});
    keys.push_back({"/content/action_block", ValueType::BOOLEAN, ANY, "false", "false", "",
                    "Whether untrusted processes are killed, and their images made unexecutable (mode 0400), as well "
                    "as reported. In global mode nothing is killed unless the four lists together hold more than 50 "
                    "entries; directory mode has no such floor."});
    keys.push_back({"/content/dir_mod", ValueType::BOOLEAN, ANY, "false", "false", "",
                    "The mode. false: global mode, every start of a program is judged. true: directory mode, whoever "
                    "opens or changes a file in the configured directories is judged, and nobody else."});
    keys.push_back({"/content/auto_detect", ValueType::BOOLEAN, GLOBAL, "true", "false", "",
                    "Detection begins by itself when learning is complete. false: it waits for \"detect start\", as "
                    "it always does in directory mode."});
    keys.push_back({"/content/scan_period_seconds", ValueType::INTEGER, GLOBAL, "3600", "3600",
                    "a multiple of the period of full_proc_task",
                    "How often, while learning, all running processes are reported; counted in whole periods of "
                    "full_proc_task. Below one period there is no such report."});
    keys.push_back({"/content/dirs", ValueType::STRINGS, DIRECTORY, "", R"(["/etc/ssl/private/"])",
                    "at most 100 directories of 1 to 4095 bytes",
                    "The directories whose files are watched. Required. One that is not there, or is no directory, is "
                    "left out."});
    keys.push_back({"/content/exts", ValueType::STRINGS, DIRECTORY, "", R"(["key", "pem"])",
                    "at most 100 extensions of 1 to 19 printable ASCII bytes, without / \" * | < > or a dot",
                    "The extensions, without their dot, of the files that count; an empty array: all files. Required. "
                    "One that is not allowed is left out."});
    keys.push_back({"/content/mount_mod", ValueType::BOOLEAN, DIRECTORY, "false", "false", "",
                    "true: the mounts that the directories lie on are watched, and a path counts when it begins with "
                    "a configured directory, byte by byte. false: the directories themselves and those below them, "
                    "as they are when the policy is delivered."});
}

void AddTasks(std::vector<PolicyKey>& keys) {
    AddTask(keys, GLOBAL, "full_proc_task",
            "The task that, while learning, moves what was learned to the local list, saves it and reports it.",
            R"({"period": 60})", ANY_PERIOD,
            "Seconds from one save to the next. A program counts as learned one period later. Without a period the "
            "task runs once, and what is learned after that is not kept.");
    AddTask(keys, DIRECTORY, "specified_file_audit_task", "The task that judges accesses to files.", "{}", LEAVE_OUT,
            LATE_START);
    AddTask(keys, ANY, "process_manager_task", "The task that takes process events.", "{}", LEAVE_OUT, LATE_START);
    AddTask(keys, ANY, "learn_status_check_task", "The task that counts the time learned and ends learning.", "{}",
            LEAVE_OUT, LATE_START);
}

} // namespace

const std::vector<PolicyKey>& GetPolicyKeys() {
    static const std::vector<PolicyKey> keys = [] {
        std::vector<PolicyKey> all;
        AddIdentity(all);
        AddSettings(all);
        AddTasks(all);
        return all;
    }();
    return keys;
}

const PolicyKey* FindPolicyKey(const std::string& pointer) {
    const std::vector<PolicyKey>& keys = GetPolicyKeys();
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&](const PolicyKey& key) { return key.pointer == pointer; });
    return found == keys.end() ? nullptr : &*found;
}

std::vector<const PolicyKey*> GetKeysOf(const std::string& objectPointer) {
    std::vector<const PolicyKey*> children;
    for (const PolicyKey& key : GetPolicyKeys()) {
        if (key.pointer == objectPointer + "/" + GetLeaf(key.pointer)) {
            children.push_back(&key);
        }
    }
    return children;
}

std::string GetLeaf(const std::string& pointer) {
    return pointer.substr(pointer.rfind('/') + 1);
}

const char* NameOf(ValueType type) {
    switch (type) {
    case ValueType::OBJECT:
        return "object";
    case ValueType::STRING:
        return "string";
    case ValueType::BOOLEAN:
        return "boolean";
    case ValueType::INTEGER:
        return "integer";
    case ValueType::STRINGS:
        break;
    }
    return "array of strings";
}

} // namespace Ctl
