#include <memory>

#include "ctl/Client.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

struct ListOptions {
    std::string list = "local";
    bool json = false;
};

// A member of an entry and the heading of its column.
using Columns = std::vector<std::pair<const char*, const char*>>;

// The last column is as wide as it is, so the one that varies most stands there.
const Columns& ColumnsOf(const std::string& list) {
    static const Columns LEARNED = {
        {"hash", "SHA-256"}, {"size", "BYTES"}, {"type", "TYPE"}, {"name", "NAME"}, {"path", "PATH"}};
    static const Columns PRESET = {{"sha256", "SHA-256"}, {"os", "OS"}, {"version", "VERSION"}, {"filename", "FILE"}};
    return list == "os" || list == "service" ? PRESET : LEARNED;
}

void PrintEntries(const Json::Value& entries, const Columns& columns) {
    std::vector<std::vector<std::string>> rows(1);
    for (const auto& [key, heading] : columns) {
        rows.front().emplace_back(heading);
    }
    for (const Json::Value& entry : entries) {
        std::vector<std::string>& row = rows.emplace_back();
        for (const auto& [key, heading] : columns) {
            row.push_back(Escape(FieldText(entry, key)));
        }
    }
    PrintTable(rows);
}

void ListTrust(const Context& context, const ListOptions& options) {
    const Json::Value answer = Client(context.root).Get("/trust?list=" + options.list);
    Json::Value entries;
    SDK::JsonUtils::GetSubobjectValue(answer, "process_info", entries);
    if (options.json) {
        for (const Json::Value& entry : entries) {
            PrintJson(entry);
        }
    } else {
        PrintEntries(entries, ColumnsOf(options.list));
    }
    FlushOutput();
}

} // namespace

void AddTrustVerbs(CLI::App& app, const Context& context) {
    CLI::App* trust = app.add_subcommand("trust", "Look into the trust lists");
    trust->require_subcommand(1);

    const auto options = std::make_shared<ListOptions>();
    CLI::App* list = trust->add_subcommand("list", "Print one of the four trust lists, an entry a line");
    list->add_option("--list", options->list, "local (learned), server, os or service (presets); local by default")
        ->check(CLI::IsMember({"local", "server", "os", "service"}));
    list->add_flag("--json", options->json, "One JSON value a line");
    list->callback([&context, options] { ListTrust(context, *options); });
}

} // namespace Ctl
