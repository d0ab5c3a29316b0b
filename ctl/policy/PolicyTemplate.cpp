#include "ctl/policy/PolicyTemplate.h"

#include <sstream>

namespace Ctl {

namespace {

constexpr std::size_t LINE_BYTES = 96;

std::string DescribeLimits(const PolicyKey& key) {
    std::string limits;
    if (!key.allowed.empty()) {
        limits += " Allowed: " + key.allowed + ".";
    }
    if (key.type != ValueType::OBJECT && !key.fallback.empty()) {
        limits += " Default: " + key.fallback + ".";
    }
    return limits;
}

std::string MakeComment(const std::string& text, const std::string& indent) {
    std::string comment;
    for (const std::string& line : WrapText(text, LINE_BYTES - indent.size())) {
        comment.append(indent).append("// ").append(line).append("\n");
    }
    return comment;
}

std::string ValueOf(const PolicyKey& key, PolicyMode mode) {
    return key.pointer == "/content/dir_mod" ? (mode == PolicyMode::DIRECTORY ? "true" : "false") : key.initial;
}

std::string MakeObject(const std::string& pointer, PolicyMode mode, const std::string& outerIndent) {
    const std::string indent = outerIndent + "  ";
    std::string text = "{\n";
    const char* separator = "";
    for (const PolicyKey* key : GetKeysOf(pointer)) {
        if (key->mode != PolicyMode::ANY && key->mode != mode) {
            continue;
        }
        text += separator + MakeComment(key->meaning + DescribeLimits(*key), indent) + indent + "\"" +
                GetLeaf(key->pointer) +
                "\": " + (key->initial.empty() ? MakeObject(key->pointer, mode, indent) : ValueOf(*key, mode));
        separator = ",\n\n";
    }
    return text + "\n" + outerIndent + "}";
}

} // namespace

std::string MakePolicyTemplate(PolicyMode mode) {
    const std::string head = "A feature policy to begin with: learn, then wait for \"corvalentctl detect start\", and "
                             "block nothing. The comments are taken out by \"corvalentctl policy check\" and \"policy "
                             "apply\". Every key is explained in corvalent-policy(5).";
    return MakeComment(head, "") + MakeObject("", mode, "") + "\n";
}

std::vector<std::string> WrapText(const std::string& text, std::size_t width) {
    std::vector<std::string> lines(1);
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (!lines.back().empty() && lines.back().size() + 1 + word.size() > width) {
            lines.emplace_back();
        }
        lines.back() += (lines.back().empty() ? "" : " ") + word;
    }
    return lines;
}

} // namespace Ctl
