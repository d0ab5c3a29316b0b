#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "ctl/Client.h"
#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using SDK::JsonUtils;
using Rows = std::vector<std::vector<std::string>>;

bool IsPid(const std::string& target) {
    return std::all_of(target.begin(), target.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The file's path as the kernel would name it as the image of a process.
std::string Resolve(const std::string& file) {
    const std::unique_ptr<char, decltype(&std::free)> path(realpath(file.c_str(), nullptr), &std::free);
    if (!path) {
        throw Failure("cannot find [" + file + "]: " + std::strerror(errno));
    }
    return path.get();
}

// A path is sent as a document: percent-encoded in a query a long one would not fit.
Json::Value AskAbout(const Client& client, const std::string& target) {
    if (IsPid(target)) {
        return client.Get("/explain?pid=" + target);
    }
    Json::Value question(Json::objectValue);
    question["path"] = Resolve(target);
    return client.Post("/explain", SDK::JsonUtils::JsonToString(question));
}

// ---- For people ------------------------------------------------------------------------------------

bool Flag(const Json::Value& object, const char* key) {
    return JsonUtils::GetBoolValue(object, key, false);
}

std::string YesNo(const Json::Value& object, const char* key) {
    return Member(object, key).isNull() ? "-" : Flag(object, key) ? "yes" : "no";
}

// The text for a name that the daemon gives; the name itself when it is a newer one.
std::string Phrase(const std::map<std::string, std::string>& phrases, const std::string& name) {
    const auto phrase = phrases.find(name);
    return phrase == phrases.end() ? Escape(name) : phrase->second;
}

std::string NameList(const std::string& list) {
    static const std::map<std::string, std::string> NAMES = {
        {"local", "local"}, {"server", "server"}, {"os", "OS preset"}, {"service", "service preset"}};
    return Phrase(NAMES, list);
}

std::string DescribeReason(const std::string& reason) {
    static const std::map<std::string, std::string> REASONS = {
        {"vouched_for", "vouched for by"},
        {"unknown_path", "unknown: no entry for this path"},
        {"unknown_name", "unknown: no entry for this name"},
        {"unknown_digest", "unknown: no entry for this digest"},
        {"other_digest", "known, with another digest:"},
        {"other_kind", "known, matched by another kind:"},
        {"other_path", "known, at another path:"},
        {"not_asked", "not asked"},
    };
    return Phrase(REASONS, reason);
}

std::string DescribeEntry(const Json::Value& entry) {
    if (!entry.isObject()) {
        return "";
    }
    if (entry.isMember("sha256")) {
        return " " + Field(entry, "filename") + ", " + Field(entry, "os") + " " + Field(entry, "version") +
               ", sha256 " + Field(entry, "sha256");
    }
    return " " + Field(entry, "path") + ", sha256 " + Field(entry, "hash") + ", type " + Field(entry, "type");
}

// "WHAT, sha256 DIGEST", the digest where there is one.
std::string WithDigest(const std::string& what, const Json::Value& object, const char* key) {
    return Member(object, key).isNull() ? what : what + ", sha256 " + Field(object, key);
}

std::string DescribeScript(const Json::Value& script) {
    return WithDigest(Field(script, "path"), script, "digest");
}

std::string DescribeKind(const Json::Value& explanation) {
    static const std::map<std::string, std::string> KINDS = {{"image", "1 (an image, learned by its digest)"},
                                                             {"script", "2 (a script, learned by its path)"}};
    return Phrase(KINDS, FieldText(explanation, "kind"));
}

std::string DescribeSize(const Json::Value& explanation) {
    return Member(explanation, "size").isNull() ? "-" : Field(explanation, "size") + " bytes";
}

std::string DescribeMode(const Json::Value& explanation) {
    return Field(explanation, "mode") + " (" + Field(explanation, "mode_name") + ")" +
           (Flag(explanation, "directory_mode") ? ", directory mode" : "");
}

std::string DescribeJudged(const Json::Value& judged) {
    const std::string text = WithDigest(Field(judged, "path"), judged, "hash");
    return judged.isMember("type") ? text + ", type " + Field(judged, "type") : text;
}

Rows DescribeProgram(const Json::Value& explanation) {
    Rows rows;
    const bool isProcess = !Member(explanation, "pid").isNull();
    if (isProcess) {
        rows.push_back({"process", Field(explanation, "pid")});
        rows.push_back({"in scope", YesNo(explanation, "in_scope")});
    } else {
        rows.push_back({"file", Field(explanation, "file")});
    }
    const Rows facts = {
        {"image", Field(explanation, "image")},
        {"name", Field(explanation, "name")},
        {"interpreter", YesNo(explanation, "interpreter")},
        {"script", DescribeScript(Member(explanation, "script"))},
        {"type", DescribeKind(explanation)},
        {"sha256", Field(explanation, "digest")},
        {"size", DescribeSize(explanation)},
        {"prelinked", YesNo(explanation, "prelinked")},
        {"mode", DescribeMode(explanation)},
        {"looked up", DescribeJudged(Member(explanation, "judged"))},
    };
    rows.insert(rows.end(), facts.begin(), facts.end());
    return rows;
}

Rows DescribeLists(const Json::Value& lists) {
    Rows rows = {{"LIST", "TRUSTED", "WHY"}};
    for (const Json::Value& list : lists) {
        rows.push_back(
            {NameList(JsonUtils::GetStringValue(list, "list", "-")), YesNo(list, "vouches"),
             DescribeReason(JsonUtils::GetStringValue(list, "reason", "-")) + DescribeEntry(Member(list, "entry"))});
    }
    return rows;
}

std::string DescribeExemption(const std::string& reason) {
    static const std::map<std::string, std::string> REASONS = {
        {"own_process", "a process of the agent's own"},
        {"no_image", "it has no image"},
        {"unreadable", "its image cannot be read, and detection fails open"},
        {"prelink_not_undone", "it is prelinked and the original cannot be had, and detection fails open"},
        {"trusted_at_start", "a list vouched for it when the agent started"},
        {"out_of_scope", "it is outside the agent's scope"},
    };
    return Phrase(REASONS, reason);
}

// Why an untrusted program is killed, or why it is not.
std::string DescribeAction(const Json::Value& verdict, const Json::Value& blocking) {
    if (JsonUtils::GetStringValue(verdict, "action", "") == "kill") {
        return "reported and killed";
    }
    if (!Flag(blocking, "policy")) {
        return "reported only: the policy does not ask for blocking";
    }
    return "reported only: the lists hold " + Field(blocking, "entries") + " entries, and nothing is blocked up to " +
           Field(blocking, "floor");
}

std::string DescribeVerdict(const Json::Value& explanation) {
    const Json::Value verdict = Member(explanation, "verdict");
    const std::string outcome = JsonUtils::GetStringValue(verdict, "outcome", "-");
    const std::string reason = JsonUtils::GetStringValue(verdict, "reason", "-");
    if (outcome == "trusted") {
        return Paint("trusted", Colour::GREEN) + ": the " + NameList(FieldText(verdict, "list")) +
               " list vouches for it";
    }
    if (outcome == "untrusted") {
        return Paint("untrusted", Colour::RED) + ": " + DescribeAction(verdict, Member(explanation, "blocking"));
    }
    static const std::map<std::string, std::string> OUTCOMES = {{"let_go", "let go"}, {"not_judged", "not judged"}};
    return Paint(Phrase(OUTCOMES, outcome), Colour::YELLOW) + ": " + DescribeExemption(reason);
}

void PrintExplanation(const Json::Value& explanation) {
    PrintTable(DescribeProgram(explanation));
    PrintLine("");
    PrintTable(DescribeLists(Member(explanation, "lists")));
    PrintLine("");
    PrintLine("in detection  " + DescribeVerdict(explanation));
    for (const Json::Value& note : Member(explanation, "notes")) {
        PrintLine("note          " + Escape(note.isString() ? note.asString() : ""));
    }
}

void ShowExplanation(const Context& context, const std::string& target, bool json) {
    const Json::Value explanation = AskAbout(Client(context.root), target);
    if (json) {
        PrintJson(explanation);
    } else {
        PrintExplanation(explanation);
    }
    FlushOutput();
}

} // namespace

void AddExplainVerb(CLI::App& app, const Context& context) {
    const auto target = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    CLI::App* verb = app.add_subcommand("explain", "Show how detection would decide on a file or process, and why");
    verb->add_option("FILE|PID", *target, "A file, or the id of a process when it is all digits (./123 is a file)")
        ->required()
        ->check([](const std::string& text) { return text.empty() ? std::string("an empty name is no file") : ""; });
    verb->add_flag("--json", *json, "One JSON value on one line");
    verb->callback([&context, target, json] { ShowExplanation(context, *target, *json); });
}

} // namespace Ctl
