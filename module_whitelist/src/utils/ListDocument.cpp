#include "utils/ListDocument.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "sdk/JsonUtils.h"

namespace utils::list_document {

namespace {

constexpr const char* LIST_KEY = "process_info";
constexpr std::string_view BLANKS = " \t\r\n";

// Walks over a document by its structure, no more: whether the entries are JSON is for the parser to say.
class Splitter {
public:
    explicit Splitter(std::string_view text) : mRest(text) {}

    // The texts of the entries, when the document is the list alone and each entry an object without
    // further structure. Whatever these are, together they are JSON exactly when the document is.
    std::optional<std::vector<std::string_view>> Split() {
        std::vector<std::string_view> entries;
        if (!(Take("{") && Take("\"process_info\"") && Take(":") && Take("["))) {
            return std::nullopt;
        }
        if (!Take("]")) {
            do {
                const std::string_view entry = TakeFlatObject();
                if (entry.empty()) {
                    return std::nullopt;
                }
                entries.push_back(entry);
            } while (Take(","));
            if (!Take("]")) {
                return std::nullopt;
            }
        }
        if (!Take("}")) {
            return std::nullopt;
        }
        SkipBlanks();
        return mRest.empty() ? std::optional(std::move(entries)) : std::nullopt;
    }

private:
    void SkipBlanks() { mRest.remove_prefix(std::min(mRest.find_first_not_of(BLANKS), mRest.size())); }

    // Behind blanks.
    bool Take(std::string_view token) {
        SkipBlanks();
        if (!mRest.starts_with(token)) {
            return false;
        }
        mRest.remove_prefix(token.size());
        return true;
    }

    // Where the string ends that begins at `open`: behind its closing quote.
    std::size_t FindEndOfString(std::size_t open) const {
        std::size_t at = open + 1;
        std::size_t quote = mRest.find('"', at);
        while (quote != std::string_view::npos) {
            const std::size_t escape = mRest.substr(0, quote).find('\\', at);
            if (escape == std::string_view::npos) {
                return quote + 1;
            }
            at = escape + 2;
            if (at > quote) {
                quote = mRest.find('"', at);
            }
        }
        return mRest.size();
    }

    // Empty when there is none.
    std::string_view TakeFlatObject() {
        SkipBlanks();
        if (!mRest.starts_with('{')) {
            return {};
        }
        for (std::size_t at = 1; at < mRest.size();) {
            switch (mRest[at]) {
            case '}': {
                const std::string_view object = mRest.substr(0, at + 1);
                mRest.remove_prefix(object.size());
                return object;
            }
            case '{':
            case '[':
                return {};
            case '"':
                at = FindEndOfString(at);
                break;
            default:
                ++at;
            }
        }
        return {};
    }

    std::string_view mRest;
};

Shape ReadAtOnce(const char* text, std::size_t length, const TakeEntry& take) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, length, document) != 0) {
        return Shape::NotJson;
    }
    if (!SDK::JsonUtils::IsArrayValue(document, LIST_KEY)) {
        return Shape::NoList;
    }
    for (const Json::Value& entry : std::as_const(document)[LIST_KEY]) {
        take(entry);
    }
    return Shape::List;
}

} // namespace

Shape Read(const char* text, std::size_t length, const TakeEntry& take) {
    const auto entries = text == nullptr ? std::nullopt : Splitter({text, length}).Split();
    if (!entries) {
        return ReadAtOnce(text, length, take);
    }
    for (const std::string_view entryText : *entries) {
        Json::Value entry;
        if (SDK::JsonUtils::ParseJsonStr(entryText.data(), entryText.size(), entry) != 0) {
            return Shape::NotJson;
        }
        take(entry);
    }
    return Shape::List;
}

bool TakeList(const Json::Value& document, const char* key, Json::Value& entries) {
    return SDK::JsonUtils::IsArrayValue(document, key) && SDK::JsonUtils::GetSubobjectValue(document, key, entries);
}

std::string ToText(const Json::Value& entries) {
    Json::Value document(Json::objectValue);
    document[LIST_KEY] = entries;
    return SDK::JsonUtils::JsonToString(document);
}

void ListWriter::Append(const Json::Value& entries) {
    if (entries.empty()) {
        return;
    }
    const std::string array = SDK::JsonUtils::JsonToString(entries);
    mText += mText.empty() ? std::string("{\"") + LIST_KEY + "\":[" : ",";
    mText.append(array, 1, array.size() - 2);
}

std::string ListWriter::Finish() {
    if (mText.empty()) {
        return ToText(Json::Value(Json::arrayValue));
    }
    mText += "]}";
    return std::move(mText);
}

} // namespace utils::list_document
