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
    explicit Splitter(std::string_view text) : mText(text) {}

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
        return mNext == mText.size() ? std::optional(std::move(entries)) : std::nullopt;
    }

private:
    void SkipBlanks() { mNext = std::min(mText.find_first_not_of(BLANKS, mNext), mText.size()); }

    // Behind blanks.
    bool Take(std::string_view token) {
        SkipBlanks();
        if (!mText.substr(mNext).starts_with(token)) {
            return false;
        }
        mNext += token.size();
        return true;
    }

    // Where the string ends that begins at `open`: behind its closing quote.
    std::size_t FindEndOfString(std::size_t open) {
        std::size_t at = open + 1;
        std::size_t quote = mText.find('"', at);
        while (quote != std::string_view::npos && FindEscape(at) < quote) {
            at = mEscape + 2;
            if (at > quote) {
                quote = mText.find('"', at);
            }
        }
        return std::min(quote, mText.size() - 1) + 1;
    }

    // Where the next backslash is, from `at` on: npos, behind every quote, when there is none. Looked for again only
    // once it has been passed, as most lists have none.
    std::size_t FindEscape(std::size_t at) {
        if (mEscape < at) {
            mEscape = mText.find('\\', at);
        }
        return mEscape;
    }

    // Empty when there is none.
    std::string_view TakeFlatObject() {
        SkipBlanks();
        const std::size_t begin = mNext;
        if (!mText.substr(begin).starts_with('{')) {
            return {};
        }
        for (std::size_t at = begin + 1; at < mText.size();) {
            switch (mText[at]) {
            case '}':
                mNext = at + 1;
                return mText.substr(begin, mNext - begin);
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

    const std::string_view mText;
    std::size_t mNext = 0;
    std::size_t mEscape = 0; // FindEscape's; 0 until it is asked
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
