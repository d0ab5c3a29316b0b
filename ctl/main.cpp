#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "sdk/PathUtils.h"

namespace {

int Complain(const std::string& reason, int status) {
    std::cerr << "corvalentctl: " << Ctl::Escape(reason) << '\n';
    return status;
}

void AddVerbs(CLI::App& app, Ctl::Context& context) {
    app.set_version_flag("--version", std::string("corvalentctl ") + CORVALENT_VERSION);
    app.add_option("--root", context.root, "The installation whose daemon is meant (also CORVALENT_ROOT)")
        ->type_name("DIR");
    app.require_subcommand(1);
    // So that --root may also stand behind the verb.
    app.fallthrough();
    app.footer("Exit status: 0 done, 1 refused or failed, 2 bad usage, 69 no daemon.");
    Ctl::AddStatusVerb(app, context);
    Ctl::AddMetricsVerb(app, context);
    Ctl::AddPolicyVerbs(app, context);
    Ctl::AddCommandVerbs(app, context);
    Ctl::AddTrustVerbs(app, context);
    Ctl::AddPresetVerbs(app, context);
    Ctl::AddExplainVerb(app, context);
    Ctl::AddReportVerbs(app, context);
    Ctl::AddTopVerb(app, context);
    Ctl::AddDoctorVerb(app, context);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("corvalentctl - ask and steer the corvalent daemon.", "corvalentctl");
    Ctl::Context context{SDK::PathUtils::GetInstallationPath()};
    try {
        AddVerbs(app, context);
        app.parse(argc, argv);
        return Ctl::EXIT_DONE;
    } catch (const CLI::Success& request) {
        return app.exit(request);
    } catch (const CLI::ParseError& error) {
        return Complain(error.what(), Ctl::EXIT_BAD_USAGE);
    } catch (const Ctl::Failure& failure) {
        return Complain(failure.what(), failure.GetStatus());
    } catch (const std::exception& error) {
        return Complain(error.what(), Ctl::EXIT_FAILED);
    }
}
