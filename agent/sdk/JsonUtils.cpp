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
        // Passed over before; a second one is no JSON.
        strict->settings_["skipBom"] = false;
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

// Here and not in jsoncpp, which passes over the mark, too, but then gives the place of some faults as one
// before the beginning of the text.
std::string_view BehindByteOrderMark(std::string_view text) {
    constexpr std::string_view MARK = "\xEF\xBB\xBF";
    return text.substr(0, MARK.size()) == MARK ? text.substr(MARK.size()) : text;
}

JsonUtils::Fault FaultAt(std::string_view text, std::size_t offset, const std::string& reason) {
    const std::string_view before = text.substr(0, offset);
    const std::size_t lineEnd = before.rfind('\n');
    const std::size_t lineStart = lineEnd == std::string_view::npos ? 0 : lineEnd + 1;
    return {static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1, offset - lineStart + 1,
            reason};
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
bool ReadStrictly(std::string_view text, Json::Value& value, std::string& errors) {
    // One a thread: making it takes longer than reading a short document.
    static thread_local const std::unique_ptr<Json::CharReader> reader(StrictReader().newCharReader());
    const std::optional<std::string> restored = RestoreBytes(text);
    const std::string_view document = restored ? std::string_view(*restored) : text;
    Json::Value parsed;
    if (!reader->parse(document.data(), document.data() + document.size(), &parsed, &errors)) {
        return false;
    }
    value = std::move(parsed);
    return true;
}

} // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& value) {
    if (text == nullptr) {
        return -1;
    }
    const std::string_view document = BehindByteOrderMark({text, length});
    if (FindBadJsonToken(document.data(), document.size())) {
        return -1;
    }
    try {
        std::string ignored;
        return ReadStrictly(document, value, ignored) ? 0 : -1;
    } catch (const std::exception&) {
        // jsoncpp throws when a document is nested too deeply for its stack limit.
        return -1;
    }
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& value) {
    return ParseJsonStr(text.data(), text.size(), value);
}

int JsonUtils::ParseJsonStr(const std::string& text, Json::Value& value, Fault& fault) {
    const std::string_view document = BehindByteOrderMark(text);
    if (const auto bad = FindBadJsonToken(document.data(), document.size())) {
        fault = FaultAt(document, bad->offset, bad->reason);
        return -1;
    }
    try {
        std::string errors;
        if (ReadStrictly(document, value, errors)) {
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
