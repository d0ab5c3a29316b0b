#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace Ctl {

// What every verb needs to know; lives as long as the command line is being parsed and carried out.
struct Context {
    std::string root;
};

// Each adds its verbs to the command line. A verb is carried out as a callback of the parse and throws
// Failure when it cannot be.
void AddStatusVerb(CLI::App& app, const Context& context);
void AddMetricsVerb(CLI::App& app, const Context& context);
void AddPolicyVerbs(CLI::App& app, const Context& context);
void AddCommandVerbs(CLI::App& app, const Context& context);
void AddTrustVerbs(CLI::App& app, const Context& context);
void AddPresetVerbs(CLI::App& app, const Context& context);
void AddExplainVerb(CLI::App& app, const Context& context);
void AddReportVerbs(CLI::App& app, const Context& context);
void AddTopVerb(CLI::App& app, const Context& context);
void AddDoctorVerb(CLI::App& app, const Context& context);

} // namespace Ctl
