#include "sdk/JsonUtils.h"

#include <cstring>
#include <exception>
#include <memory>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

#include "agent/sdk/JsonTokens.h"

namespace SDK {

namespace {

const Json::CharReaderBuilder& StrictReader() {
    static const Json::CharReaderBuilder* const builder = [] {
        auto* strict = new Json::CharReaderBuilder;
        Json::CharReaderBuilder::strictMode(&strict->settings_);
        return strict;
    }();
    return *builder;
}

const Json::StreamWriterBuilder& OneLineWriter() {
    static const Json::StreamWriterBuilder* const builder = [] {
        auto* writer = new Json::StreamWriterBuilder;
        writer->settings_["commentStyle"] = "None";
        writer->settings_["indentation"] = "";
        writer->settings_["emitUTF8"] = true;
        return writer;
    }();
    return *builder;
}

const Json::Value* FindMember(const Json::Value& object, const char* key) {
    return object.isObject() ? object.find(key, key + std::strlen(key)) : nullptr;
}

} // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& value) {
    if (text == nullptr || !HasStrictJsonTokens(text, length)) {
        return -1;
    }
    try {
        const std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
        Json::Value parsed;
        if (!reader->parse(text, text + length, &parsed, nullptr)) {
            return -1;
        }
        value = std::move(parsed);
        return 0;
    } catch (const std::exception&) {
        // jsoncpp throws when a document is nested too deeply for its stack limit.
        return -1;
    }
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& value) {
    return ParseJsonStr(text.data(), text.size(), value);
}

bool JsonUtils::GetSubobjectValue(const Json::Value& object, const char* key, Json::Value& out) {
    const Json::Value* member = FindMember(object, key);
    if (member == nullptr) {
        return false;
    }
    // Through a copy, because `out` may be `object` itself.
    out = Json::Value(*member);
    return true;
}

std::string JsonUtils::GetStringValue(const Json::Value& object, const char* key, const std::string& fallback) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isString() ? member->asString() : fallback;
}

int JsonUtils::GetIntValue(const Json::Value& object, const char* key, int fallback) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isInt() ? member->asInt() : fallback;
}

std::int64_t JsonUtils::GetInt64Value(const Json::Value& object, const char* key, std::int64_t fallback) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isInt64() ? member->asInt64() : fallback;
}

bool JsonUtils::GetBoolValue(const Json::Value& object, const char* key, bool fallback) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isBool() ? member->asBool() : fallback;
}

bool JsonUtils::IsArrayValue(const Json::Value& object, const char* key) {
    const Json::Value* member = FindMember(object, key);
    return member != nullptr && member->isArray();
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    try {
        return Json::writeString(OneLineWriter(), value);
    } catch (const std::exception&) {
        return "";
    }
}

} // namespace SDK
