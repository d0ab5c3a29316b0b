#include "utils/ListDocument.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"

namespace EngineTest {
namespace {

using utils::list_document::ListWriter;
using utils::list_document::Shape;
using utils::list_document::ToText;

// What the parser makes of the whole document.
Shape ShapeOfWhole(const std::string& text, Json::Value& entries) {
    Json::Value document;
    if (SDK::JsonUtils::ParseJsonStr(text, document) != 0) {
        return Shape::NotJson;
    }
    return utils::list_document::TakeList(document, "process_info", entries) ? Shape::List : Shape::NoList;
}

void ExpectReadAsTheParserDoes(const std::string& text) {
    Json::Value expected(Json::arrayValue);
    const Shape shape = ShapeOfWhole(text, expected);
    Json::Value taken(Json::arrayValue);
    EXPECT_EQ(
        utils::list_document::Read(text.data(), text.size(), [&](const Json::Value& entry) { taken.append(entry); }),
        shape)
        << text;
    if (shape == Shape::List) {
        EXPECT_EQ(taken, expected) << text;
    }
}

TEST(ListDocumentTest, AnyTextIsReadAsTheParserReadsIt) {
    for (const char* entries : {"",
                                "{}",
                                R"({"a":1})",
                                R"({"a":"}"},{"b":"\"]}"})",
                                R"({"a":"\\"} , {"b":[]})",
                                R"({"a":"\\\"}"},{"b":"\\\\"})",
                                R"({"a":"\\\\\\","b":"\"\"}"})",
                                R"({"a":"\")",
                                R"({"a":"\)",
                                R"({"a":{"b":1}})",
                                "1,2",
                                R"({"a":1},)",
                                R"(,{"a":1})",
                                R"({"a":1}{"b":1})",
                                R"({"a":1,"a":2})",
                                R"({"a":01})",
                                R"({"a":"x)",
                                "{]}",
                                R"({"a":1],"b":{)",
                                "{\"a\":\"\n\"}",
                                R"({"a":1}/*}*/)",
                                R"({"a":1/*}*/})",
                                R"({"a"})",
                                "{",
                                "\"{}\"",
                                R"({"a":1},7,{"b":2})",
                                R"({'a':1})",
                                R"({"a":nope})"}) {
        const std::string list = entries;
        for (const std::string& text :
             {R"({"process_info":[)" + list + "]}", " {\n\"process_info\" : [ " + list + " ]\t}\r\n",
              R"({"process_info":[)" + list + "]", R"({"process_info":[)" + list + "]}}",
              R"({"process_info":[)" + list + R"(],"more":1})", R"({"more":1,"process_info":[)" + list + "]}",
              R"({"process_info":[)" + list + R"(],"process_info":[]})", R"({"process\u005finfo":[)" + list + "]}",
              R"({"other":[)" + list + "]}", "[" + list + "]", list}) {
            ExpectReadAsTheParserDoes(text);
        }
    }
}

TEST(ListDocumentTest, ADocumentCutOffAnywhereIsNoList) {
    const std::string text = R"({"process_info":[{"path":"/a\"b","size":1},{"path":"/c"}]})";
    for (std::size_t length = 0; length <= text.size(); ++length) {
        ExpectReadAsTheParserDoes(text.substr(0, length));
    }
}

TEST(ListDocumentTest, ATextPutTogetherHasTheBytesOfOneMadeAtOnce) {
    const auto make = [](int first, int count) {
        Json::Value entries(Json::arrayValue);
        for (int i = first; i < first + count; ++i) {
            Json::Value entry(Json::objectValue);
            entry["path"] = "/\"quoted\"\n\xFF" + std::to_string(i);
            entry["size"] = i;
            entries.append(entry);
        }
        return entries;
    };
    ListWriter writer;
    writer.Append(make(0, 2));
    writer.Append(make(2, 0));
    writer.Append(make(2, 3));
    EXPECT_EQ(writer.Finish(), ToText(make(0, 5)));
    EXPECT_EQ(ListWriter().Finish(), ToText(Json::Value(Json::arrayValue)));
}

} // namespace
} // namespace EngineTest
