#include "sdk/JsonUtils.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string_view>
#include <utility>

#include <json/reader.h>
#include <json/writer.h>

#include "agent/sdk/JsonBytes.h"
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

JsonUtils::Fault FaultAt(const std::string& text, std::size_t offset, const std::string& reason) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(offset);
    const std::size_t lineStart = offset == 0 ? std::string::npos : text.rfind('\n', offset - 1);
    return {static_cast<std::size_t>(std::count(text.begin(), end, '\n')) + 1,
            offset - (lineStart == std::string::npos ? 0 : lineStart + 1) + 1, reason};
}

// The first of jsoncpp's errors, each of which is written as "* Line 2, Column 5\n  REASON\n".
JsonUtils::Fault ReadFault(const std::string& errors) {
    JsonUtils::Fault fault;
    std::istringstream input(errors);
    std::string word;
    char comma = '\0';
    input >> word >> word >> fault.line >> comma >> word >> fault.column >> std::ws;
    std::getline(input, fault.reason);
    return fault;
}

// False, with jsoncpp's errors as it writes them, when it refuses the text.
bool ReadStrictly(const char* text, std::size_t length, Json::Value& value, std::string& errors) {
    // One a thread: making it takes longer than reading a short document.
    static thread_local const std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
    const std::optional<std::string> restored = RestoreBytes({text, length});
    const std::string_view document = restored ? std::string_view(*restored) : std::string_view(text, length);
    Json::Value parsed;
    if (!reader->parse(document.data(), document.data() + document.size(), &parsed, &errors)) {
        return false;
    }
    value = std::move(parsed);
    return true;
}

} // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& value) {
    if (text == nullptr || FindBadJsonToken(text, length)) {
        return -1;
    }
    try {
        std::string ignored;
        return ReadStrictly(text, length, value, ignored) ? 0 : -1;
    } catch (const std::exception&) {
        // jsoncpp throws when a document is nested too deeply for its stack limit.
        return -1;
    }
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& value) {
    return ParseJsonStr(text.data(), text.size(), value);
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& value, Fault& fault) {
    if (const auto bad = FindBadJsonToken(text.data(), text.size())) {
        fault = FaultAt(text, bad->offset, bad->reason);
        return -1;
    }
    try {
        std::string errors;
        if (ReadStrictly(text.data(), text.size(), value, errors)) {
            return 0;
        }
        fault = ReadFault(errors);
    } catch (const std::exception&) {
        fault = {0, 0, "it is nested too deeply"};
    }
    return -1;
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
        return EscapeBytes(Json::writeString(OneLineWriter(), value));
    } catch (const std::exception&) {
        return "";
    }
}

} // namespace SDK
