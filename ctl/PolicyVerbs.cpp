#include <array>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Delivery.h"
#include "ctl/Document.h"
#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "ctl/policy/PolicyCheck.h"
#include "ctl/policy/PolicyReference.h"
#include "ctl/policy/PolicyTemplate.h"
#include "ctl/policy/PolicyText.h"

namespace Ctl {

namespace {

struct CheckOptions {
    std::string file;
    bool strict = false;
    bool json = false;
};

struct InitOptions {
    bool dirMode = false;
    std::string file;
};

void ApplyPolicy(const Context& context, const std::string& file) {
    const Json::Value answer = Client(context.root).Post("/policy", ReadPolicy(file));
    PrintAccepted("policy accepted", answer);
}

// As JSON that can be applied again.
void ShowPolicy(const Context& context) {
    PrintJson(Member(Client(context.root).Get("/policy"), "document"));
    FlushOutput();
}

void PrintProblem(const PolicyProblem& problem) {
    static constexpr std::array<Colour, 3> COLOURS = {Colour::RED, Colour::RED, Colour::YELLOW};
    std::string place = problem.pointer.empty() ? "the document" : problem.pointer;
    if (problem.line > 0) {
        place += ", line " + std::to_string(problem.line) + ", column " + std::to_string(problem.column);
    }
    PrintLine(Paint(Pad(NameOf(problem.severity), 8), COLOURS.at(static_cast<std::size_t>(problem.severity))) +
              Escape(place) + ": " + Escape(problem.reason));
}

void PrintProblemAsJson(const PolicyProblem& problem) {
    Json::Value value(Json::objectValue);
    value["severity"] = NameOf(problem.severity);
    value["pointer"] = problem.pointer;
    value["reason"] = problem.reason;
    value["refused"] = problem.refused;
    if (problem.line > 0) {
        value["line"] = static_cast<Json::UInt64>(problem.line);
        value["column"] = static_cast<Json::UInt64>(problem.column);
    }
    PrintJson(value);
}

// How many problems there are of each severity.
using Tally = std::array<std::size_t, 3>;

std::string DescribeTally(const Tally& tally) {
    return Count(tally[0], "error") + ", " + Count(tally[1], "danger") + ", " + Count(tally[2], "warning");
}

void CheckPolicyFile(const CheckOptions& options) {
    Tally tally{};
    for (const PolicyProblem& problem : CheckPolicy(ReadPolicy(options.file))) {
        ++tally.at(static_cast<std::size_t>(problem.severity));
        if (options.json) {
            PrintProblemAsJson(problem);
        } else {
            PrintProblem(problem);
        }
    }
    const bool found = tally != Tally{};
    const bool failed = tally[0] > 0 || (options.strict && found);
    if (!options.json && !failed) {
        PrintLine(found ? DescribeTally(tally) : "no problems");
    }
    FlushOutput();
    if (failed) {
        throw Failure("the policy [" + options.file + "] has " + DescribeTally(tally));
    }
}

void WriteTemplate(const InitOptions& options) {
    const std::string text = MakePolicyTemplate(options.dirMode ? PolicyMode::DIRECTORY : PolicyMode::GLOBAL);
    if (!options.file.empty()) {
        WriteNewDocument(options.file, text);
        return;
    }
    PrintText(text);
    FlushOutput();
}

void AddCheckVerb(CLI::App& policy) {
    const auto options = std::make_shared<CheckOptions>();
    CLI::App* check = policy.add_subcommand("check", "Find every problem of a policy before it is delivered; needs no "
                                                     "daemon");
    check->add_option("FILE", options->file, "The policy document, - for standard input")->required();
    check->add_flag("--strict", options->strict, "Fail on dangers and warnings, too");
    check->add_flag("--json", options->json, "One JSON value a line");
    check->callback([options] { CheckPolicyFile(*options); });
}

void AddInitVerb(CLI::App& policy) {
    const auto options = std::make_shared<InitOptions>();
    CLI::App* init = policy.add_subcommand("init", "Print a commented policy to begin with: it learns and blocks "
                                                   "nothing");
    init->add_flag("--dir-mode", options->dirMode, "For directory mode, which judges accesses to files");
    init->add_option("-o", options->file, "Write it to this file, which must not exist yet")->type_name("FILE");
    init->callback([options] { WriteTemplate(*options); });
}

// What the documentation is made from; of no use to an operator.
void AddReferenceVerb(CLI::App& policy) {
    const auto format = std::make_shared<std::string>();
    CLI::App* reference = policy.add_subcommand("reference", "Print the table of keys for the documentation");
    reference->group("");
    reference->add_option("FORMAT", *format)->required()->check(CLI::IsMember({"markdown", "man"}));
    reference->callback([format] {
        PrintText(*format == "man" ? MakeManReference() : MakeMarkdownReference());
        FlushOutput();
    });
}

} // namespace

void AddPolicyVerbs(CLI::App& app, const Context& context) {
    CLI::App* policy = app.add_subcommand("policy", "Make, check, deliver or show the feature policy");
    policy->require_subcommand(1);

    const auto file = std::make_shared<std::string>();
    CLI::App* apply = policy->add_subcommand("apply", "Deliver a feature policy; says why when it is refused");
    apply->add_option("FILE", *file, "The policy document, - for standard input")->required();
    apply->callback([&context, file] { ApplyPolicy(context, *file); });

    CLI::App* show = policy->add_subcommand("show", "Print the policy in force, one line of JSON");
    show->callback([&context] { ShowPolicy(context); });

    AddCheckVerb(*policy);
    AddInitVerb(*policy);
    AddReferenceVerb(*policy);
}

} // namespace Ctl
