#include "utils/ListDocument.h"

#include "sdk/JsonUtils.h"

namespace utils::list_document {

namespace {

constexpr const char* LIST_KEY = "process_info";

} // namespace

Shape Parse(const char* text, std::size_t length, Json::Value& entries) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, length, document) != 0) {
        return Shape::NotJson;
    }
    return TakeList(document, LIST_KEY, entries) ? Shape::List : Shape::NoList;
}

bool TakeList(const Json::Value& document, const char* key, Json::Value& entries) {
    return SDK::JsonUtils::IsArrayValue(document, key) && SDK::JsonUtils::GetSubobjectValue(document, key, entries);
}

std::string ToText(const Json::Value& entries) {
    Json::Value document(Json::objectValue);
    document[LIST_KEY] = entries;
    return SDK::JsonUtils::JsonToString(document);
}

} // namespace utils::list_document
