#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "agent/daemon/Daemon.h"
#include "sdk/PathUtils.h"

namespace {

constexpr int EXIT_USAGE = 2;

} // namespace

int main(int argc, char** argv) {
    CLI::App app("corvalentd - the host agent: learns which executables may run on this machine and enforces it.\n"
                 "Runs in the foreground until SIGTERM or SIGINT.",
                 "corvalentd");
    app.set_version_flag("--version", std::string("corvalentd ") + CORVALENT_VERSION);
    std::string root = SDK::PathUtils::GetInstallationPath();
    bool console = false;
    app.add_option("--root", root, "The installation to run in (also CORVALENT_ROOT)")->type_name("DIR");
    app.add_flag("--console", console, "Log to standard error, too");
    app.footer("Exit status: 0 stopped in order, 2 bad usage, 66 root or module folder missing, 70 a module failed,\n"
               "73 a file cannot be made or a port be had, 75 another daemon works in this root, 77 permission "
               "missing, 78 bad settings.");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {
        return app.exit(request);
    } catch (const CLI::ParseError& error) {
        std::cerr << "corvalentd: " << error.what() << "\n";
        return EXIT_USAGE;
    }
    Daemon::Daemon::HideMemory();
    Daemon::Daemon::BlockStopSignals();
    // A peer that closed its end shows as an error of the write.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return Daemon::Daemon(root, console).Run();
    } catch (const std::exception& error) {
        std::cerr << "corvalentd: " << error.what() << "\n";
        return Daemon::EXIT_MODULE_FAILED;
    }
}
