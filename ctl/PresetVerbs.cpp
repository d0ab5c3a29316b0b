#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include "ctl/Client.h"
#include "ctl/Delivery.h"
#include "ctl/Failure.h"
#include "ctl/TrustLists.h"
#include "ctl/Verbs.h"
#include "ctl/preset/Build.h"
#include "ctl/preset/PresetDocument.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

constexpr unsigned MAX_JOBS = 256;

struct ApplyOptions {
    std::string file;
    std::string list = "os";
};

// As the daemon, which has a working directory of its own, finds the file.
std::string MakeFileUrl(const std::string& file) {
    std::error_code error;
    const std::filesystem::path path = std::filesystem::canonical(file, error);
    if (error) {
        throw Failure("cannot open [" + file + "]: " + error.message());
    }
    return "file://" + EncodePath(path.string());
}

std::set<std::string> DigestsOf(const std::vector<Preset::Entry>& entries) {
    std::set<std::string> digests;
    for (const Preset::Entry& entry : entries) {
        digests.insert(entry.sha256);
    }
    return digests;
}

std::set<std::string> DigestsOf(const Json::Value& entries) {
    std::set<std::string> digests;
    for (const Json::Value& entry : entries) {
        digests.insert(SDK::JsonUtils::GetStringValue(entry, "sha256", ""));
    }
    return digests;
}

void ApplyPreset(const Context& context, const ApplyOptions& options) {
    const std::string text = Preset::ReadPresetFile(options.file);
    const std::set<std::string> digests = DigestsOf(Preset::FromDocument(text, options.file));
    Json::Value command(Json::objectValue);
    command["url"] = MakeFileUrl(options.file);
    command["hash"] = SDK::CryptoCodeUtils::GetSha256(text);

    const Client client(context.root);
    const char* key = options.list == "os" ? OS_PRESET_KEY : SERVICE_PRESET_KEY;
    const Json::Value answer = client.Post(std::string("/command/") + key, SDK::JsonUtils::JsonToString(command));
    // The command counts as done even when the module could not fetch or load the list.
    const std::set<std::string> taken = DigestsOf(AskForTrustList(client, options.list));
    if (taken != digests) {
        throw Failure("the agent did not take the preset list: " +
                      ExplainRefusal(answer, "it has " + std::to_string(taken.size()) + " digests, not those " +
                                                 std::to_string(digests.size())));
    }
    const std::string done = std::string(options.list == "os" ? "OS" : "service") +
                             " preset list applied: " + std::to_string(digests.size()) + " digests";
    PrintAccepted(done, answer);
}

void AddBuild(CLI::App& preset) {
    const auto options = std::make_shared<Preset::BuildOptions>();
    options->jobs = std::max(std::thread::hardware_concurrency(), 1U);
    CLI::App* build =
        preset.add_subcommand("build", "Make a preset list of what is installed here, or compare one with the disk");
    build
        ->add_option("--from", options->sources,
                     "dpkg (the package database, the default) or a directory with all below it on its file "
                     "system; may be given several times")
        ->type_name("dpkg|DIR")
        ->expected(1)
        ->take_all();
    CLI::Option_group* task = build->add_option_group("task");
    CLI::Option* output =
        task->add_option("-o,--output", options->output, "Where the list goes, - for standard output");
    output->type_name("FILE");
    CLI::Option* verify =
        task->add_option("--verify", options->document,
                         "Compare this list with the disk instead; with --from, also look for executables that it "
                         "does not have")
            ->type_name("FILE");
    task->require_option(1);
    build->add_option("--jobs", options->jobs, "Threads; as many as there are cores by default")
        ->check(CLI::Range(1U, MAX_JOBS));
    build->add_option("--host-root", options->hostRoot, "The root directory of the host that is meant, / by default")
        ->type_name("DIR");
    build->add_flag("--all", options->all, "With --verify, print the entries that are ok, too")->needs(verify);
    build->add_flag("--json", options->json, "One JSON value a line");
    build->callback([options, output] {
        if (output->count() > 0) {
            Preset::BuildPreset(*options);
        } else {
            Preset::VerifyPreset(*options);
        }
    });
}

void AddApply(CLI::App& preset, const Context& context) {
    const auto options = std::make_shared<ApplyOptions>();
    CLI::App* apply = preset.add_subcommand("apply", "Check a preset list and have the agent load it");
    apply->add_option("FILE", options->file, "The list; the daemon reads it, too, so there is no - here")->required();
    apply->add_option("--list", options->list, "os or service: which of the two lists it replaces; os by default")
        ->check(CLI::IsMember({"os", "service"}));
    apply->callback([&context, options] { ApplyPreset(context, *options); });
}

} // namespace

void AddPresetVerbs(CLI::App& app, const Context& context) {
    CLI::App* preset = app.add_subcommand("preset", "Make, compare and apply preset lists");
    preset->require_subcommand(1);
    AddBuild(*preset);
    AddApply(*preset, context);
}

} // namespace Ctl
