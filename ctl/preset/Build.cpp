#include "ctl/preset/Build.h"

#include <array>
#include <filesystem>
#include <iostream>

#include "ctl/Document.h"
#include "ctl/Failure.h"
#include "ctl/Interrupts.h"
#include "ctl/Output.h"
#include "ctl/preset/HostRoot.h"
#include "ctl/preset/OsRelease.h"
#include "ctl/preset/PresetDocument.h"
#include "ctl/preset/Survey.h"
#include "ctl/preset/Verification.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"

namespace Ctl::Preset {

namespace {

constexpr std::size_t MAX_REMARKS = 20;

// On this machine a relative directory is one below the working directory, on another tree below its root.
std::vector<std::string> MakeAbsolute(const BuildOptions& options) {
    std::vector<std::string> sources = options.sources;
    for (std::string& source : sources) {
        if (source != FROM_DPKG && options.hostRoot == "/") {
            source = std::filesystem::absolute(source).string();
        }
    }
    return sources;
}

void PrintRemarks(const std::vector<Remark>& remarks) {
    for (std::size_t i = 0; i < remarks.size() && i < MAX_REMARKS; ++i) {
        std::cerr << "note: " << Escape(remarks[i].path) << ": " << remarks[i].text << '\n';
    }
    if (remarks.size() > MAX_REMARKS) {
        std::cerr << "note: and " << remarks.size() - MAX_REMARKS << " more\n";
    }
}

Json::Value ToJson(std::uint64_t number) {
    return static_cast<Json::UInt64>(number);
}

Json::Value DescribeSurvey(const Survey& survey) {
    Json::Value value(Json::objectValue);
    value["looked"] = ToJson(survey.looked);
    value["executables"] = ToJson(survey.executables.size());
    value["digested_bytes"] = ToJson(survey.bytes);
    value["changed_conffiles"] = ToJson(survey.changedConffiles);
    value["unreadable"] = ToJson(survey.unreadable);
    value["absent"] = ToJson(survey.absent);
    return value;
}

void PrintSummary(std::ostream& stream, const Json::Value& summary) {
    struct Line {
        const char* heading;
        const char* key;
        const char* text;
    };
    static constexpr std::array<Line, 9> LINES = {{
        {"preset list", "file", ""},
        {"sha256", "sha256", ""},
        {"entries", "entries", "one for each digest"},
        {"size", "bytes", "bytes"},
        {"executables", "executables", ""},
        {"looked at", "looked", "files"},
        {"digested", "digested_bytes", "bytes"},
        {"conffiles", "changed_conffiles", "changed since their packages brought them"},
        {"left out", "unreadable", "unreadable or vanished"},
    }};
    constexpr std::size_t HEADING_WIDTH = 13;
    for (const Line& line : LINES) {
        stream << Pad(line.heading, HEADING_WIDTH) << Field(summary, line.key) << (line.text[0] == '\0' ? "" : " ")
               << line.text << '\n';
    }
    stream << Pad("not there", HEADING_WIDTH) << FieldText(summary, "absent") << " files of packages\n";
}

void Report(const BuildOptions& options, const Json::Value& summary) {
    std::ostream& stream = options.output == "-" ? std::cerr : std::cout;
    if (options.json) {
        stream << SDK::JsonUtils::JsonToString(summary) << '\n';
    } else {
        PrintSummary(stream, summary);
    }
    FlushOutput();
}

// "1 changed, 2 missing"; empty when nothing differs.
std::string CountDifferences(const Json::Value& counts) {
    std::string text;
    for (const auto state : {Finding::CHANGED, Finding::MISSING, Finding::UNREADABLE, Finding::NEW}) {
        const std::uint64_t count = counts[NameOf(state)].asUInt64();
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + NameOf(state);
        }
    }
    return text;
}

Json::Value Count(const std::vector<Finding>& findings) {
    Json::Value counts(Json::objectValue);
    for (const auto state : {Finding::OK, Finding::CHANGED, Finding::MISSING, Finding::UNREADABLE, Finding::NEW}) {
        counts[NameOf(state)] = 0;
    }
    for (const Finding& finding : findings) {
        counts[NameOf(finding.state)] = counts[NameOf(finding.state)].asUInt64() + 1;
    }
    return counts;
}

void PrintFindingJson(const Finding& finding) {
    Json::Value value(Json::objectValue);
    value["state"] = NameOf(finding.state);
    value["filename"] = finding.path;
    value["expected"] = finding.expected.empty() ? Json::Value() : Json::Value(finding.expected);
    value["found"] = finding.found.empty() ? Json::Value() : Json::Value(finding.found);
    value["reason"] = finding.reason.empty() ? Json::Value() : Json::Value(finding.reason);
    PrintJson(value);
}

void PrintFindingLine(const Finding& finding) {
    constexpr std::size_t STATE_WIDTH = 12;
    const auto orDash = [](const std::string& text) { return text.empty() ? "-" : text; };
    constexpr std::size_t DIGEST_DIGITS = 64;
    PrintLine(Pad(NameOf(finding.state), STATE_WIDTH) + Pad(orDash(finding.expected), DIGEST_DIGITS) + "  " +
              Pad(orDash(finding.found), DIGEST_DIGITS) + "  " + Escape(finding.path) +
              (finding.reason.empty() ? "" : ": " + finding.reason));
}

void PrintFindings(const std::vector<Finding>& findings, const BuildOptions& options) {
    for (const Finding& finding : findings) {
        if (finding.state == Finding::OK && !options.all) {
            continue;
        }
        if (options.json) {
            PrintFindingJson(finding);
        } else {
            PrintFindingLine(finding);
        }
    }
}

} // namespace

void BuildPreset(const BuildOptions& options) {
    CheckDestination(options.output);
    const Interrupts interrupts;
    HostRoot host(options.hostRoot);
    BuildOptions complete = options;
    if (complete.sources.empty()) {
        complete.sources = {FROM_DPKG};
    }
    const Survey survey = ConductSurvey(host, MakeAbsolute(complete), options.jobs);
    PrintRemarks(survey.remarks);
    if (survey.executables.empty()) {
        throw Failure("no executable was found in " + std::to_string(survey.looked) +
                      " files: there is nothing to make a preset list of");
    }
    const std::vector<Entry> entries = ToEntries(survey, NameOs(host));
    const std::string text = ToDocument(entries);
    WriteDocument(options.output, text);

    Json::Value summary = DescribeSurvey(survey);
    summary["file"] = options.output;
    summary["sha256"] = SDK::CryptoCodeUtils::GetSha256(text);
    summary["entries"] = ToJson(entries.size());
    summary["bytes"] = ToJson(text.size());
    Report(options, summary);
}

void VerifyPreset(const BuildOptions& options) {
    const Interrupts interrupts;
    HostRoot host(options.hostRoot);
    const std::vector<Entry> entries = FromDocument(ReadPresetFile(options.document), options.document);
    std::vector<Finding> findings = CompareWithDisk(host, entries, options.jobs);
    if (!options.sources.empty()) {
        const Survey survey = ConductSurvey(host, MakeAbsolute(options), options.jobs);
        PrintRemarks(survey.remarks);
        const std::vector<Finding> added = FindNew(survey, entries);
        findings.insert(findings.end(), added.begin(), added.end());
    }
    PrintFindings(findings, options);

    const Json::Value counts = Count(findings);
    const std::string differences = CountDifferences(counts);
    if (options.json) {
        PrintJson(counts);
    } else {
        PrintLine(FieldText(counts, "ok") + " ok" + (differences.empty() ? "" : ", " + differences));
    }
    FlushOutput();
    if (!differences.empty()) {
        throw Failure("[" + options.document + "] and the disk differ: " + differences);
    }
}

} // namespace Ctl::Preset
