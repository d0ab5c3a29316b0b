#include <chrono>
#include <ctime>
#include <functional>
#include <iostream>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Failure.h"
#include "ctl/Interrupts.h"
#include "ctl/Output.h"
#include "ctl/SinceTime.h"
#include "ctl/Verbs.h"
#include "modules/ReportTypes.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using SDK::JsonUtils;

constexpr std::chrono::milliseconds FOLLOW_INTERVAL{300};
constexpr std::size_t HASH_PREFIX = 12;

struct HistoryOptions {
    std::string type;
    std::string since;
    bool follow = false;
    bool summary = false;
    bool json = false;
};

std::int64_t Now() {
    return std::time(nullptr);
}

std::string CheckSince(const std::string& text) {
    std::int64_t seconds = 0;
    return ParseSince(text, Now(), seconds)
               ? ""
               : "[" + text + "] is no time: seconds since the epoch, 30s, 10m, 2h, 1d or YYYY-MM-DD[ HH:MM:SS]";
}

std::string MakeQuery(const HistoryOptions& options, std::int64_t since, std::int64_t after) {
    std::string query = "/reports?after=" + std::to_string(after);
    if (since > 0) {
        query += "&since=" + std::to_string(since);
    }
    if (!options.type.empty()) {
        query += "&type=" + EncodeQuery(options.type);
    }
    return query;
}

using Printer = std::function<void(const Json::Value& report)>;

// Prints the reports behind `after`, oldest first, however many answers that takes; moves `after` to
// the last one.
void PrintNew(const Client& client, const HistoryOptions& options, std::int64_t since, const Printer& print,
              std::int64_t& after) {
    for (;;) {
        const Json::Value reports = Member(client.Get(MakeQuery(options, since, after)), "reports");
        if (reports.empty()) {
            return;
        }
        for (const Json::Value& report : reports) {
            const std::int64_t id = JsonUtils::GetInt64Value(report, "id", 0);
            if (id <= after) {
                throw Failure("the daemon's answer is out of order");
            }
            print(report);
            after = id;
        }
        FlushOutput();
    }
}

std::int64_t ReadSince(const HistoryOptions& options) {
    std::int64_t since = 0;
    if (!options.since.empty()) {
        ParseSince(options.since, Now(), since);
    }
    return since;
}

void PrintHistory(const Context& context, const HistoryOptions& options, const Printer& print) {
    const std::int64_t since = ReadSince(options);
    const Client client(context.root);
    std::int64_t after = 0;
    if (!options.follow) {
        PrintNew(client, options, since, print, after);
        return;
    }
    const Interrupts interrupts;
    while (!Interrupts::AreThere()) {
        PrintNew(client, options, since, print, after);
        interrupts.Wait(-1, FOLLOW_INTERVAL);
    }
}

void PrintAlertLine(const Json::Value& report) {
    const Json::Value alert = Member(report, "data");
    const Json::Value process = Member(alert, "process_info");
    const std::int64_t stored = JsonUtils::GetInt64Value(report, "time", 0);
    const bool blocked = JsonUtils::GetIntValue(process, "block", 0) == 1;
    const std::string action = blocked ? Paint(Pad("blocked", 8), Colour::RED) : Paint(Pad("seen", 8), Colour::YELLOW);
    PrintLine(FormatTime(JsonUtils::GetInt64Value(alert, "occur_time", stored)) + "  " +
              Pad(FieldText(process, "process_pid"), 8) + action + Pad(Field(process, "process_username"), 12) + "  " +
              Pad(Escape(FieldText(process, "process_hash").substr(0, HASH_PREFIX)), HASH_PREFIX) + "  " +
              Pad(Field(alert, "event_id"), 36) + "  " + Field(process, "process_path"));
}

void PrintReportLine(const Json::Value& report) {
    PrintLine(FormatTime(JsonUtils::GetInt64Value(report, "time", 0)) + "  " + Pad(FieldText(report, "id"), 8) +
              Pad(Field(report, "type"), 14) + Field(report, "data"));
}

std::string JoinTexts(const Json::Value& texts) {
    std::string joined;
    for (const Json::Value& text : texts) {
        joined += (joined.empty() ? "" : ",") + Escape(text.isString() ? text.asString() : "");
    }
    return joined.empty() ? "-" : joined;
}

void PrintProgramTable(const Json::Value& programs) {
    std::vector<std::vector<std::string>> rows = {{"COUNT", "FIRST SEEN", "LAST SEEN", "USERS", "SHA-256", "PATH"}};
    for (const Json::Value& program : programs) {
        const Json::Value users = Member(program, "users");
        rows.push_back({FieldText(program, "count"), FormatTime(JsonUtils::GetInt64Value(program, "first_seen", 0)),
                        FormatTime(JsonUtils::GetInt64Value(program, "last_seen", 0)), JoinTexts(users),
                        Field(program, "hash"), Field(program, "path")});
    }
    PrintTable(rows);
}

void ShowSummary(const Context& context, const HistoryOptions& options) {
    const Json::Value summary =
        Client(context.root).Get("/reports/summary?since=" + std::to_string(ReadSince(options)));
    const Json::Value programs = Member(summary, "programs");
    if (options.json) {
        for (const Json::Value& program : programs) {
            PrintJson(program);
        }
    } else {
        PrintProgramTable(programs);
    }
    FlushOutput();
    if (!JsonUtils::GetBoolValue(summary, "complete", true)) {
        std::cerr << "note: only the " << programs.size() << " programs seen most often are shown\n";
    }
}

void ShowAlerts(const Context& context, const HistoryOptions& options) {
    if (options.summary) {
        ShowSummary(context, options);
        return;
    }
    PrintHistory(context, options, options.json ? Printer(PrintJson) : Printer(PrintAlertLine));
}

void ShowReports(const Context& context, const HistoryOptions& options) {
    PrintHistory(context, options, options.json ? Printer(PrintJson) : Printer(PrintReportLine));
}

// The flag --follow, for whatever cannot be followed.
CLI::Option* AddHistoryOptions(CLI::App& verb, HistoryOptions& options) {
    CLI::Option* follow = verb.add_flag("--follow", options.follow, "Go on with what comes until interrupted");
    verb.add_option("--since", options.since,
                    "Only what was stored since then: seconds since the epoch, 30s, 10m, 2h, 1d ago, or "
                    "YYYY-MM-DD[ HH:MM:SS]")
        ->type_name("TIME")
        ->check(CheckSince);
    verb.add_flag("--json", options.json, "One JSON value a line");
    return follow;
}

} // namespace

void AddReportVerbs(CLI::App& app, const Context& context) {
    const auto alertOptions = std::make_shared<HistoryOptions>();
    alertOptions->type = Engine::REPORT_ALERT;
    CLI::App* alerts = app.add_subcommand("alerts", "Print the alerts, oldest first: time, pid, blocked or only seen, "
                                                    "user, hash, event id, path");
    CLI::Option* follow = AddHistoryOptions(*alerts, *alertOptions);
    alerts
        ->add_flag("--summary", alertOptions->summary,
                   "Each program that was not blocked, once: how often, when and by whom it was run")
        ->excludes(follow);
    alerts->callback([&context, alertOptions] { ShowAlerts(context, *alertOptions); });

    const auto reportOptions = std::make_shared<HistoryOptions>();
    CLI::App* reports =
        app.add_subcommand("reports", "Print everything that was reported, oldest first: time, id, type, document");
    AddHistoryOptions(*reports, *reportOptions);
    reports->add_option("--type", reportOptions->type, "Only reports of this type, such as whitelist_6");
    reports->callback([&context, reportOptions] { ShowReports(context, *reportOptions); });
}

} // namespace Ctl
