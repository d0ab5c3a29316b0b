#include <iostream>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Delivery.h"
#include "ctl/Document.h"
#include "ctl/Failure.h"
#include "ctl/ListDocument.h"
#include "ctl/Output.h"
#include "ctl/TrustLists.h"
#include "ctl/Verbs.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using SDK::JsonUtils;

struct ListOptions {
    std::string list = "local";
    bool json = false;
    std::string output = "-";
};

// A member of an entry and the heading of its column.
using Columns = std::vector<std::pair<const char*, const char*>>;

// The last column is as wide as it is, so the one that varies most stands there.
const Columns& ColumnsOf(const std::string& list) {
    static const Columns LEARNED = {
        {"hash", "SHA-256"}, {"size", "BYTES"}, {"type", "TYPE"}, {"name", "NAME"}, {"path", "PATH"}};
    static const Columns PRESET = {{"sha256", "SHA-256"}, {"os", "OS"}, {"version", "VERSION"}, {"filename", "FILE"}};
    return IsPresetList(list) ? PRESET : LEARNED;
}

void PrintEntries(const Json::Value& entries, const Columns& columns) {
    std::vector<std::vector<std::string>> rows(1);
    for (const auto& [key, heading] : columns) {
        rows.front().emplace_back(heading);
    }
    for (const Json::Value& entry : entries) {
        std::vector<std::string> row;
        for (const auto& [key, heading] : columns) {
            row.push_back(Field(entry, key));
        }
        rows.push_back(std::move(row));
    }
    PrintTable(rows);
}

void ListTrust(const Context& context, const ListOptions& options) {
    const Json::Value entries = AskForTrustList(Client(context.root), options.list);
    if (options.json) {
        for (const Json::Value& entry : entries) {
            PrintJson(entry);
        }
    } else {
        PrintEntries(entries, ColumnsOf(options.list));
    }
    FlushOutput();
}

void PrintNote(const std::string& text) {
    std::cerr << "note: " << Escape(text) << '\n';
}

// Why the module would leave the entry out; empty when it takes it.
std::string WhyIncomplete(const Json::Value& entry) {
    if (!entry.isObject()) {
        return "no object";
    }
    for (const char* key : {"name", "path", "hash"}) {
        if (JsonUtils::GetStringValue(entry, key, "").empty()) {
            return std::string("\"") + key + "\" is missing, empty or no string";
        }
    }
    return JsonUtils::GetInt64Value(entry, "size", 0) == 0 ? "\"size\" is missing, 0 or no whole number" : "";
}

// Why the module would take the entry, but it could never vouch for a program; empty when it could.
std::string WhyUseless(const Json::Value& entry) {
    constexpr int BY_PATH = 2;
    // One that has no kind is by digest, too.
    const int type = JsonUtils::GetIntValue(entry, "type", 0);
    if (type < 0 || type > BY_PATH) {
        return "\"type\" is neither 1 nor 2";
    }
    if (type == BY_PATH) {
        return "";
    }
    return IsDigest(JsonUtils::GetStringValue(entry, "hash", "")) ? ""
                                                                  : "\"hash\" is not 64 lowercase hexadecimal digits";
}

// Names the entries that do not count and why; returns how many the module will take.
Json::ArrayIndex CheckServerList(const Json::Value& entries) {
    Json::ArrayIndex complete = 0;
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const std::string fault = WhyIncomplete(entries[i]);
        if (!fault.empty()) {
            PrintNote(NameEntry(entries[i], i, "name") + " is left out: " + fault);
            continue;
        }
        ++complete;
        const std::string doubt = WhyUseless(entries[i]);
        if (!doubt.empty()) {
            PrintNote(NameEntry(entries[i], i, "name") + " can never match: " + doubt);
        }
    }
    return complete;
}

void ImportTrust(const Context& context, const std::string& file) {
    const std::string text = ReadDocument(file);
    const Json::Value entries = ParseListDocument(text, file == "-" ? "standard input" : file);
    const Json::ArrayIndex complete = CheckServerList(entries);
    if (complete == 0 && !entries.empty()) {
        throw Failure("none of the " + std::to_string(entries.size()) + " entries is complete: nothing was delivered");
    }
    const Client client(context.root);
    const Json::Value answer = client.Post(std::string("/command/") + SERVER_LIST_KEY, text);
    const Json::ArrayIndex taken = AskForTrustList(client, "server").size();
    if (taken != complete) {
        throw Failure(
            "the agent did not take the server list: " +
            ExplainRefusal(answer, "it has " + std::to_string(taken) + " entries, not " + std::to_string(complete)));
    }
    const std::string done =
        "server list replaced: " + std::to_string(taken) + " of " + std::to_string(entries.size()) + " entries taken";
    PrintAccepted(done, answer);
}

// What an import would leave out is left out here, and named.
Json::Value KeepComplete(const Json::Value& entries) {
    Json::Value kept(Json::arrayValue);
    for (const Json::Value& entry : entries) {
        const std::string fault = WhyIncomplete(entry);
        if (fault.empty()) {
            kept.append(entry);
        } else {
            PrintNote(FieldText(entry, "path") + " is left out: " + fault);
        }
    }
    return kept;
}

void ExportTrust(const Context& context, const ListOptions& options) {
    CheckDestination(options.output);
    Json::Value entries = AskForTrustList(Client(context.root), options.list);
    if (!IsPresetList(options.list)) {
        entries = KeepComplete(entries);
    }
    WriteDocument(options.output, ToListDocument(entries));
    if (options.output != "-") {
        PrintLine(std::to_string(entries.size()) + " entries written");
        FlushOutput();
    }
}

void AddListOption(CLI::App& verb, ListOptions& options) {
    verb.add_option("--list", options.list, "local (learned), server, os or service (presets); local by default")
        ->check(CLI::IsMember({"local", "server", "os", "service"}));
}

} // namespace

void AddTrustVerbs(CLI::App& app, const Context& context) {
    CLI::App* trust = app.add_subcommand("trust", "Look into the trust lists, import and export them");
    trust->require_subcommand(1);

    const auto options = std::make_shared<ListOptions>();
    CLI::App* list = trust->add_subcommand("list", "Print one of the four trust lists, an entry a line");
    AddListOption(*list, *options);
    list->add_flag("--json", options->json, "One JSON value a line");
    list->callback([&context, options] { ListTrust(context, *options); });

    const auto file = std::make_shared<std::string>();
    CLI::App* importing = trust->add_subcommand("import", "Check a document and replace the server list with it");
    importing->add_option("FILE", *file, "The document, - for standard input")->required();
    importing->callback([&context, file] { ImportTrust(context, *file); });

    CLI::App* exporting = trust->add_subcommand("export", "Write one of the four trust lists as a document");
    AddListOption(*exporting, *options);
    exporting->add_option("-o,--output", options->output, "Where it goes, - for standard output, the default")
        ->type_name("FILE");
    exporting->callback([&context, options] { ExportTrust(context, *options); });
}

} // namespace Ctl
