#include "ctl/policy/PolicyReference.h"

#include "ctl/policy/PolicyKeys.h"
#include "ctl/policy/PolicyTemplate.h"

namespace Ctl {

namespace {

constexpr std::size_t MAN_SOURCE_BYTES = 66;

const char* DescribeMode(PolicyMode mode) {
    switch (mode) {
    case PolicyMode::GLOBAL:
        return "global";
    case PolicyMode::DIRECTORY:
        return "directory";
    case PolicyMode::ANY:
        break;
    }
    return "both";
}

std::string Replace(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size())) {
        text.replace(at, what.size(), by);
    }
    return text;
}

std::string ForMarkdown(const std::string& text) {
    return Replace(Replace(text, "|", "\\|"), "*", "\\*");
}

std::string AsCode(const std::string& text) {
    return text.empty() ? "" : "`" + text + "`";
}

// For roff: the escape character, the minus sign of options, quotes, and no line that begins like a
// request.
std::string ForMan(const std::string& text) {
    std::string escaped = Replace(Replace(Replace(text, "\\", "\\e"), "-", "\\-"), "\"", "\\(dq");
    if (escaped.starts_with(".") || escaped.starts_with("'")) {
        escaped.insert(0, "\\&");
    }
    return escaped;
}

std::string MakeManParagraph(const std::string& text) {
    std::string paragraph;
    for (const std::string& line : WrapText(text, MAN_SOURCE_BYTES)) {
        paragraph += ForMan(line) + "\n";
    }
    return paragraph;
}

std::string DescribeForMan(const PolicyKey& key) {
    std::string text = std::string("Type: ") + NameOf(key.type) + ". Mode: " + DescribeMode(key.mode) + ".";
    if (!key.fallback.empty()) {
        text += " Default: " + key.fallback + ".";
    }
    if (!key.allowed.empty()) {
        text += " Allowed: " + key.allowed + ".";
    }
    return text;
}

} // namespace

std::string MakeMarkdownReference() {
    std::string table = "| key | type | mode | default | allowed | effect |\n|---|---|---|---|---|---|\n";
    for (const PolicyKey& key : GetPolicyKeys()) {
        table += "| " + AsCode(key.pointer) + " | " + NameOf(key.type) + " | " + DescribeMode(key.mode) + " | " +
                 AsCode(key.fallback) + " | " + ForMarkdown(key.allowed) + " | " + ForMarkdown(key.meaning) + " |\n";
    }
    return table;
}

std::string MakeManReference() {
    std::string entries;
    for (const PolicyKey& key : GetPolicyKeys()) {
        entries += ".TP\n.B " + ForMan(key.pointer) + "\n" + MakeManParagraph(DescribeForMan(key)) + ".br\n" +
                   MakeManParagraph(key.meaning);
    }
    return entries;
}

} // namespace Ctl
