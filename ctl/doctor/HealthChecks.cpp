#include <array>

#include "ctl/Output.h"
#include "ctl/doctor/Finding.h"
#include "sdk/JsonUtils.h"

namespace Ctl::Doctor {

namespace {

using SDK::JsonUtils;

// The modes of work, as `status` gives them.
enum Mode : int { STOPPED = 0, LEARNING = 1, LEARNED = 2, DETECTING = 3 };

int ModeOf(const Subject& subject) {
    return JsonUtils::GetIntValue(subject.status, "mode", -1);
}

std::string ModeNameOf(const Subject& subject) {
    return JsonUtils::GetStringValue(subject.status, "mode_name", "unknown");
}

// ---- what it is told to do

Finding CheckPolicy(const Subject& subject) {
    const Json::Value policy = Member(subject.status, "policy");
    if (!policy.isObject()) {
        return subject.policy.accepted
                   ? Failed("conf/policy.json is not in force: it was refused at the start, nothing is watched",
                            "see log/corvalent.log for the reason, and apply a policy (corvalentctl policy apply FILE)")
                   : Warning("none accepted yet: nothing is learned or judged",
                             "apply one (corvalentctl policy apply FILE)");
    }
    const std::string hash = "hash " + FieldText(policy, "hash");
    if (!JsonUtils::GetBoolValue(policy, "enabled", false)) {
        return Warning(hash + " is in force, and switches the feature off", "apply one with \"enabled\": \"enabled\"");
    }
    return Ok(hash + " is in force");
}

Finding CheckDetection(const Subject& subject) {
    const int mode = ModeOf(subject);
    const bool wished = JsonUtils::GetBoolValue(subject.status, "desired_detect", false);
    if (mode < STOPPED || mode > DETECTING) {
        return Failed("the mode is not known: " + JsonUtils::GetStringValue(subject.status, "mode_error", "no answer"),
                      "see log/corvalent.log; the whitelist module has to be loaded");
    }
    const std::string name = ModeNameOf(subject);
    if (mode == DETECTING) {
        return Ok(wished ? "wished, and a fact" : "a fact, started by the policy");
    }
    if (wished) {
        return Warning("wished, but the agent is " + name,
                       "it follows by itself when learning is complete; else see log/corvalent.log");
    }
    if (mode == LEARNING) {
        return Ok("not wished; learning, " + FieldText(subject.status, "learned_minutes") + " of " +
                  FieldText(subject.status, "learn_period_minutes") + " minutes");
    }
    return Warning("not wished, and the agent is " + name + ": nothing is judged",
                   mode == LEARNED ? "corvalentctl detect start" : "corvalentctl learn reset");
}

Finding CheckBlocking(const Subject& subject) {
    const Json::Value blocking = Member(subject.status, "blocking");
    if (!blocking.isObject()) {
        return Warning("not known: the whitelist module does not say", "see log/corvalent.log");
    }
    if (!JsonUtils::GetBoolValue(blocking, "policy", false)) {
        return Ok("off: untrusted programs are reported, and run");
    }
    if (!JsonUtils::GetBoolValue(blocking, "in_force", false)) {
        return Warning("on, but the lists hold only " + FieldText(blocking, "entries") +
                           " entries that count: nothing is killed up to " + FieldText(blocking, "floor"),
                       "learn longer, or deliver preset lists");
    }
    return Ok(subject.policy.directoryMode ? "on: untrusted programs that touch a watched file are killed"
                                           : "on: untrusted programs are killed");
}

// ---- how it is doing

Finding CheckTasks(const Subject& subject) {
    const Json::Value tasks = Member(subject.status, "tasks");
    for (const Json::Value& task : tasks) {
        if (FieldText(task, "state") != "running") {
            return Failed(FieldText(task, "name") + " is " + FieldText(task, "state"),
                          "see log/corvalent.log, then restart the daemon");
        }
    }
    return Ok(std::to_string(tasks.size()) + " running");
}

Finding CheckQueues(const Subject& subject) {
    constexpr std::int64_t NEARLY_ALL_PERCENT = 80;
    for (const Json::Value& task : Member(subject.status, "tasks")) {
        const std::int64_t depth = JsonUtils::GetInt64Value(task, "depth", 0);
        const std::int64_t capacity = JsonUtils::GetInt64Value(task, "capacity", 0);
        if (capacity > 0 && depth > capacity / 100 * NEARLY_ALL_PERCENT) {
            return Warning("that of " + FieldText(task, "name") + " holds " + std::to_string(depth) + " of " +
                               std::to_string(capacity) + ": what does not fit is lost",
                           "give the agent more of the CPU (cpu_budget_percent), or narrow its scope");
        }
    }
    return Ok("none is nearly full");
}

Finding CheckMarks(const Subject& subject) {
    const Json::Value files = Member(subject.status, "files");
    const std::string marks = FieldText(files, "marks");
    if (const std::int64_t failed = JsonUtils::GetInt64Value(files, "failed_marks", 0); failed > 0) {
        return Failed(std::to_string(failed) + " could not be placed, " + marks + " stand",
                      "see log/corvalent.log for the paths and reasons, then apply the policy again");
    }
    if (subject.policy.directoryMode && JsonUtils::GetInt64Value(files, "marks", 0) == 0) {
        return Warning("none stands, although the policy is for directories",
                       "see that the policy's directories are there, and that the agent is not stopped");
    }
    return Ok(marks + " stand");
}

// ---- what was lost

struct Loss {
    const char* counter;
    const char* meaning;
    const char* remedy;
};

constexpr const char* READ_LOG = "see log/corvalent.log for the first one and its reason";
constexpr const char* LESS_LOAD = "give the agent more of the CPU (cpu_budget_percent), or narrow its scope";

constexpr std::array<Loss, 18> LOSSES = {{
    {"events.lost", "process events were lost; what still ran was found again", LESS_LOAD},
    {"events.garbled", "messages from the kernel could not be decoded", "report it with the kernel's version"},
    {"files.lost", "file accesses were lost and not judged", "raise fs.fanotify.max_queued_events"},
    {"queue.lost", "messages were refused by a full queue", LESS_LOAD},
    {"reports.write_errors", "attempts to store reports failed, and were repeated",
     "see the room in data/, and the log"},
    {"reports.given_up", "reports could not be stored at all", "see the room in data/, and the log"},
    {"log.lost", "records could not be written to the log", "see the room in log/"},
    {"resources.short", "things could not be looked at for want of file descriptors or memory",
     "raise LimitNOFILE= or MemoryMax= of the service, or find out who uses them up"},
    {"events.starved", "programs could not be judged for want of file descriptors or memory, and were judged again",
     "raise LimitNOFILE= or MemoryMax= of the service, or find out who uses them up"},
    {"messages.undeliverable", "messages went to a task that does not run", READ_LOG},
    {"isolate.failed", "untrusted programs could not be killed or made not executable", READ_LOG},
    {"task.exceptions", "tasks failed in their work", READ_LOG},
    {"module.exceptions", "modules failed in their work", READ_LOG},
    {"task.init_failures", "tasks could not be started", READ_LOG},
    {"task.abandoned", "tasks did not end in time and were left behind", "restart the daemon"},
    {"daemon.unclean_end", "the run before this one was killed, crashed, or went down with the machine",
     "look for its process in the kernel's log (journalctl -k -g oom) and at the end of log/corvalent.log"},
    {"events.overflow", "the kernel's buffer of process events ran over", LESS_LOAD},
    {"files.overflow", "the kernel's queue of file accesses ran over", "raise fs.fanotify.max_queued_events"},
}};

Finding CheckLoss(const Subject& subject, const Loss& loss) {
    const Json::Value counters = Member(subject.status, "counters");
    const std::int64_t count = JsonUtils::GetInt64Value(counters, loss.counter, 0);
    return count == 0 ? Ok("0") : Warning(std::to_string(count) + " since the start: " + loss.meaning, loss.remedy);
}

} // namespace

Checks HealthChecks(const Subject& subject) {
    if (!subject.HasDaemon()) {
        return {};
    }
    Checks checks = {
        {"policy", CheckPolicy}, {"detection", CheckDetection}, {"blocking", CheckBlocking},
        {"tasks", CheckTasks},   {"queues", CheckQueues},       {"marks", CheckMarks},
    };
    for (const Loss& loss : LOSSES) {
        checks.push_back({loss.counter, [&loss](const Subject& examined) { return CheckLoss(examined, loss); }});
    }
    return checks;
}

} // namespace Ctl::Doctor
