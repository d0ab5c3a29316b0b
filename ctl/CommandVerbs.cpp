#include <algorithm>
#include <cctype>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Delivery.h"
#include "ctl/Document.h"
#include "ctl/Verbs.h"

namespace Ctl {

namespace {

constexpr const char* RESET_LEARNING_KEY = "whitelist_10004";
constexpr const char* START_DETECT_KEY = "whitelist_10005";

std::string CheckKey(const std::string& key) {
    const bool plain = std::all_of(key.begin(), key.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
    });
    return plain && !key.empty() ? "" : "a key consists of letters, digits and _-.";
}

void SendCommand(const Context& context, const std::string& key, const std::string& text, const char* done) {
    const Json::Value answer = Client(context.root).Post("/command/" + key, text);
    PrintAccepted(done, answer);
}

void AddByName(CLI::App& group, const char* name, const char* description, const char* key, const char* done,
               const Context& context) {
    group.require_subcommand(1);
    CLI::App* verb = group.add_subcommand(name, description);
    verb->callback([&context, key, done] { SendCommand(context, key, "", done); });
}

} // namespace

void AddCommandVerbs(CLI::App& app, const Context& context) {
    const auto key = std::make_shared<std::string>();
    const auto file = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("command", "Deliver a server command");
    command
        ->add_option("KEY", *key,
                     "whitelist_10001 server trust list, 10002 OS preset, 10003 service preset, 10004 "
                     "reset learning, 10005 start detection")
        ->required()
        ->check(CheckKey);
    command->add_option("FILE", *file, "The command's document, - for standard input; none sends an empty text");
    command->callback([&context, key, file] {
        SendCommand(context, *key, file->empty() ? "" : ReadDocument(*file), "command done");
    });

    AddByName(*app.add_subcommand("learn", "Control learning"), "reset", "Begin to learn again", RESET_LEARNING_KEY,
              "learning reset", context);
    AddByName(*app.add_subcommand("detect", "Control detection"), "start",
              "Start detection, now and after every start of the daemon", START_DETECT_KEY, "detection started",
              context);
}

} // namespace Ctl
