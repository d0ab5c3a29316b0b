// One round of the figures from exec to verdict: the daemon as it is shipped beside the least that anybody
// can do, and beside fapolicyd where it is installed. Takes root and a control group v2 hierarchy.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>

#include "exec/Figures.h"

namespace {

using Measure = void (*)(unsigned int);

const std::map<std::string, Measure>& Figures() {
    static const std::map<std::string, Measure> figures{
        {"kill", Bench::MeasureKill},     {"trusted", Bench::MeasureTrusted}, {"seen-before", Bench::MeasureSeenBefore},
        {"digest", Bench::MeasureDigest}, {"storm", Bench::MeasureStorm},     {"burst", Bench::MeasureBurst}};
    return figures;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Measures once from exec to verdict; a line of JSON for each measurement."};
    unsigned int round = 0;
    std::string only;
    app.add_option("--round", round, "number of the round; whoever begins depends on it");
    app.add_option("--only", only, "nothing but this: kill, trusted, seen-before, digest, storm or burst");
    CLI11_PARSE(app, argc, argv);
    try {
        for (const auto& [name, measure] : Figures()) {
            if (only.empty() || only == name) {
                measure(round);
            }
        }
        return EXIT_SUCCESS;
    } catch (const std::exception& failure) {
        std::cerr << "exec: " << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
