#include <algorithm>
#include <chrono>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "ctl/doctor/Finding.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using namespace Doctor;
using SDK::JsonUtils;

// A daemon that needs longer is not well.
constexpr std::chrono::seconds ANSWER_WITHIN{10};

Json::Value ReadConfiguration(const std::string& path) {
    constexpr std::uint64_t MAX_BYTES = 64U << 20U;
    std::string text;
    Json::Value document;
    if (SDK::FileUtils::ReadFile(path, text, MAX_BYTES) == 0) {
        JsonUtils::ParseJsonStr(text, document);
    }
    return document;
}

Policy ReadPolicy(const std::string& path) {
    const Json::Value content = Member(ReadConfiguration(path), "content");
    return {SDK::FileUtils::IsFile(path), JsonUtils::GetBoolValue(content, "dir_mod", false),
            JsonUtils::GetBoolValue(content, "action_block", false)};
}

Subject MakeSubject(const std::string& root) {
    Subject subject;
    subject.root = root + (root.ends_with("/") ? "" : "/");
    subject.machine = Machine::Real();
    subject.policy = ReadPolicy(subject.root + "conf/policy.json");
    subject.scope =
        JsonUtils::GetStringValue(Member(ReadConfiguration(subject.root + "conf/agent.json"), "scope"), "cgroup", "");
    try {
        subject.status = Client(subject.root, ANSWER_WITHIN).Get("/status");
    } catch (const Failure& failure) {
        subject.noAnswer = failure.what();
        subject.daemonMissing = failure.GetStatus() == EXIT_NO_DAEMON;
    }
    return subject;
}

Checks AllChecks(const Subject& subject) {
    Checks all;
    for (const Checks& checks : {MachineChecks(), StateChecks(), DaemonChecks(subject), HealthChecks(subject)}) {
        all.insert(all.end(), checks.begin(), checks.end());
    }
    return all;
}

std::string GradeName(Grade grade) {
    return grade == Grade::OK ? "ok" : grade == Grade::WARNING ? "warning" : "failure";
}

Colour GradeColour(Grade grade) {
    return grade == Grade::OK ? Colour::GREEN : grade == Grade::WARNING ? Colour::YELLOW : Colour::RED;
}

void PrintFinding(const std::string& name, const Finding& finding) {
    constexpr std::size_t GRADE_PLACES = 9;
    constexpr std::size_t NAME_PLACES = 31;
    const std::string indent(GRADE_PLACES + NAME_PLACES, ' ');
    PrintLine(Paint(Pad(GradeName(finding.grade), GRADE_PLACES), GradeColour(finding.grade)) + Pad(name, NAME_PLACES) +
              Escape(finding.found));
    if (!finding.remedy.empty()) {
        PrintLine(indent + "-> " + Escape(finding.remedy));
    }
}

void PrintFindingJson(const std::string& name, const Finding& finding) {
    Json::Value value(Json::objectValue);
    value["check"] = name;
    value["result"] = GradeName(finding.grade);
    value["found"] = finding.found;
    value["remedy"] = finding.remedy;
    PrintJson(value);
}

void Examine(const Context& context, bool json) {
    const Subject subject = MakeSubject(context.root);
    const Checks checks = AllChecks(subject);
    const auto print = json ? PrintFindingJson : PrintFinding;
    std::size_t warnings = 0;
    std::size_t failures = 0;
    for (const Check& check : checks) {
        const Finding finding = check.run(subject);
        print(check.name, finding);
        warnings += finding.grade == Grade::WARNING ? 1U : 0U;
        failures += finding.grade == Grade::FAILURE ? 1U : 0U;
        FlushOutput();
    }
    if (!json) {
        PrintLine("");
        PrintLine(Count(checks.size(), "check") + ", " + Count(warnings, "warning") + ", " +
                  Count(failures, "failure"));
        FlushOutput();
    }
    if (failures > 0) {
        throw Failure(std::to_string(failures) + " of " + std::to_string(checks.size()) + " checks failed");
    }
}

} // namespace

void AddDoctorVerb(CLI::App& app, const Context& context) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* verb = app.add_subcommand("doctor", "Examine the machine, the installation and the daemon, and say what "
                                                  "to do about what is wrong");
    verb->add_flag("--json", *json, "One JSON value a check");
    verb->callback([&context, json] { Examine(context, *json); });
}

} // namespace Ctl
