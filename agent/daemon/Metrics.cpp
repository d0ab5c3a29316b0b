#include "agent/daemon/Metrics.h"

#include <array>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>

#include "agent/daemon/CounterHelp.h"
#include "agent/daemon/Detection.h"
#include "agent/daemon/Exposition.h"
#include "agent/daemon/ProcessFigures.h"
#include "sdk/JsonUtils.h"

namespace Daemon {

namespace {

using Family = Exposition::Family;

constexpr double SECONDS_PER_MINUTE = 60;

// Not a number where there is none, which the exposition leaves out.
double NumberOf(const Json::Value& object, const char* key) {
    const Json::Value value = object.isObject() ? object[key] : Json::Value();
    return value.isNumeric() ? value.asDouble() : std::numeric_limits<double>::quiet_NaN();
}

double FlagOf(const Json::Value& object, const char* key) {
    return SDK::JsonUtils::GetBoolValue(object, key, false) ? 1 : 0;
}

// "events.exec" is corvalent_events_exec_total.
std::string NameCounter(const std::string& counter) {
    std::string name = "corvalent_";
    for (const char c : counter) {
        name += std::isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    }
    return name + "_total";
}

// Those that nothing has been counted with yet are there as well, at 0, so that a first event shows as an
// increase; a module's own that nobody has described are shown under their name.
void AddCounters(const Json::Value& counters, Exposition& exposition) {
    std::map<std::string, std::string> helps;
    if (counters.isObject()) {
        for (const std::string& name : counters.getMemberNames()) {
            helps[name] = "The counter " + name + ".";
        }
    }
    for (const CounterHelp& known : ListCounterHelp()) {
        helps[known.name] = known.help;
    }
    for (const auto& [name, help] : helps) {
        const double value = NumberOf(counters, name.c_str());
        exposition.AddCounter({NameCounter(name), help}, std::isnan(value) ? 0 : value);
    }
}

// The same losses as in the counters, side by side.
void AddLosses(const Json::Value& counters, Exposition& exposition) {
    struct Loss {
        const char* reason;
        const char* counter;
    };
    static constexpr std::array LOSSES = {
        Loss{"process_event_overflow", "events.overflow"},
        Loss{"process_event_garbled", "events.garbled"},
        Loss{"file_access_overflow", "files.overflow"},
        Loss{"file_access_dropped", "files.dropped"},
        Loss{"queue_full", "queue.lost"},
        Loss{"no_receiver", "messages.undeliverable"},
        Loss{"report_not_stored", "reports.given_up"},
    };
    for (const Loss& loss : LOSSES) {
        const double value = NumberOf(counters, loss.counter);
        exposition.AddCounter({"corvalent_losses_total", "What the agent could not take notice of or hand on."},
                              std::isnan(value) ? 0 : value, {{"reason", loss.reason}});
    }
}

void AddMode(const Json::Value& status, Exposition& exposition) {
    const double current = NumberOf(status, "mode");
    exposition.AddGauge({"corvalent_mode_known", "Whether the whitelist module says in which mode it is."},
                        std::isnan(current) ? 0 : 1);
    if (std::isnan(current)) {
        return;
    }
    static constexpr std::array MODES = {std::pair{MODE_STOPPED, "stopped"}, std::pair{MODE_LEARNING, "learning"},
                                         std::pair{MODE_LEARNED, "learned"}, std::pair{MODE_DETECTING, "detecting"}};
    for (const auto& [mode, name] : MODES) {
        exposition.AddGauge({"corvalent_mode", "1 for the mode that the whitelist module is in, 0 for the others."},
                            current == static_cast<double>(mode) ? 1 : 0, {{"mode", name}});
    }
}

void AddLearning(const Json::Value& status, Exposition& exposition) {
    exposition.AddGauge({"corvalent_detection_wished", "Whether detection is wished."},
                        FlagOf(status, "desired_detect"));
    exposition.AddGauge({"corvalent_learned_seconds", "How long has been learned."},
                        NumberOf(status, "learned_minutes") * SECONDS_PER_MINUTE);
    exposition.AddGauge({"corvalent_learning_period_seconds", "How long is to be learned."},
                        NumberOf(status, "learn_period_minutes") * SECONDS_PER_MINUTE);
}

void AddLists(const Json::Value& lists, Exposition& exposition) {
    if (!lists.isObject()) {
        return;
    }
    for (const std::string& list : lists.getMemberNames()) {
        exposition.AddGauge({"corvalent_list_entries", "Entries of a trust list."}, NumberOf(lists, list.c_str()),
                            {{"list", list}});
    }
}

void AddTasks(const Json::Value& tasks, Exposition& exposition) {
    for (const Json::Value& task : tasks) {
        const Exposition::Labels labels = {{"task", SDK::JsonUtils::GetStringValue(task, "name", "")}};
        exposition.AddGauge({"corvalent_queue_messages", "Messages that wait in a task's queue."},
                            NumberOf(task, "depth"), labels);
        exposition.AddGauge({"corvalent_queue_capacity_messages", "The most messages that a task's queue holds."},
                            NumberOf(task, "capacity"), labels);
        exposition.AddCounter(
            {"corvalent_queue_refused_messages_total", "Messages that a task's queue refused because it was full."},
            NumberOf(task, "lost"), labels);
    }
}

void AddPolicy(const Json::Value& policy, Exposition& exposition) {
    if (!policy.isObject()) {
        return;
    }
    exposition.AddGauge({"corvalent_policy_accepted_time_seconds",
                         "When the policy in force was accepted, in seconds since the epoch."},
                        NumberOf(policy, "accepted_time"));
    exposition.AddGauge({"corvalent_policy_enabled", "Whether the policy in force switches the feature on."},
                        FlagOf(policy, "enabled"));
}

void AddMarks(const Json::Value& files, Exposition& exposition) {
    const Family family = {"corvalent_file_marks", "Marks on directories and mounts that are watched."};
    exposition.AddGauge(family, NumberOf(files, "marks"), {{"state", "standing"}});
    exposition.AddGauge(family, NumberOf(files, "failed_marks"), {{"state", "failed"}});
}

void AddDurations(Exposition& exposition) {
    const Family verdict = {"corvalent_event_verdict_seconds",
                            "From a process event in the kernel to the end of its handling by the whitelist module."};
    const auto read = [](const char* name) { return SDK::Histograms::Of(name).Read(); };
    exposition.AddHistogram(verdict, read("verdict.exec"), {{"event", "exec"}});
    exposition.AddHistogram(verdict, read("verdict.fork"), {{"event", "fork"}});
    exposition.AddHistogram({"corvalent_exec_kill_seconds",
                             "From a process event in the kernel to the SIGKILL that was sent on its account."},
                            read("kill"));
    exposition.AddHistogram({"corvalent_digest_seconds", "How long the digest of a file took."}, read("digest"));
}

// The names that Prometheus' own client libraries give them.
void AddProcess(Exposition& exposition) {
    const ProcessFigures figures = ProcessFigures::Read();
    exposition.AddGauge({"process_resident_memory_bytes", "Resident memory size in bytes."}, figures.residentBytes);
    exposition.AddGauge({"process_virtual_memory_bytes", "Virtual memory size in bytes."}, figures.virtualBytes);
    exposition.AddCounter({"process_cpu_seconds_total", "Total user and system CPU time spent in seconds."},
                          figures.cpuSeconds);
    exposition.AddGauge({"process_open_fds", "Number of open file descriptors."}, figures.openFds);
    exposition.AddGauge({"process_max_fds", "Maximum number of open file descriptors."}, figures.maxFds);
    exposition.AddGauge({"process_start_time_seconds", "Start time of the process since the epoch in seconds."},
                        figures.startTimeSeconds);
}

} // namespace

std::string RenderMetrics(const Json::Value& status) {
    Exposition exposition;
    exposition.AddGauge({"corvalent_build_info", "Always 1; the label tells which version runs."}, 1,
                        {{"version", CORVALENT_VERSION}});
    AddCounters(status["counters"], exposition);
    AddLosses(status["counters"], exposition);
    AddMode(status, exposition);
    AddLearning(status, exposition);
    AddLists(status["lists"], exposition);
    AddTasks(status["tasks"], exposition);
    AddPolicy(status["policy"], exposition);
    AddMarks(status["files"], exposition);
    exposition.AddCounter({"corvalent_alerts_total", "Alerts in the history, all time."}, NumberOf(status, "alerts"));
    AddDurations(exposition);
    AddProcess(exposition);
    return exposition.Render();
}

} // namespace Daemon
