#include "ctl/ListDocument.h"

#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "sdk/JsonUtils.h"

namespace Ctl {

namespace {

using SDK::JsonUtils;

const std::string LIST_KEY = "process_info";

} // namespace

Json::Value ParseListDocument(const std::string& text, const std::string& name) {
    Json::Value document;
    if (JsonUtils::ParseJsonStr(text, document) != 0) {
        throw Failure("[" + name + "] is not a JSON document");
    }
    Json::Value entries = Member(document, LIST_KEY.c_str());
    if (!entries.isArray()) {
        throw Failure("[" + name + "] is no list document: it has no array \"" + LIST_KEY + "\"");
    }
    return entries;
}

std::string ToListDocument(const Json::Value& entries) {
    Json::Value document(Json::objectValue);
    document[LIST_KEY] = entries;
    return JsonUtils::JsonToString(document);
}

bool IsDigest(const std::string& text) {
    constexpr std::size_t DIGITS = 64;
    return text.size() == DIGITS && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string NameEntry(const Json::Value& entry, Json::ArrayIndex index, const char* nameKey) {
    const std::string place = LIST_KEY + "[" + std::to_string(index) + "]";
    const std::string name = JsonUtils::GetStringValue(entry, nameKey, "");
    return name.empty() ? place : place + " (" + name + ")";
}

} // namespace Ctl
