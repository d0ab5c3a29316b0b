#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "agent/sdk/JsonTokens.h"
#include "sdk/JsonUtils.h"

using SDK::FindBadJsonToken;
using SDK::JsonUtils;
using namespace std::string_literals;

namespace {

bool IsAccepted(const std::string& text) {
    Json::Value value;
    return JsonUtils::ParseJsonStr(text, value) == 0;
}

Json::Value Parsed(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr(text, value), 0) << text;
    return value;
}

std::string Nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

} // namespace

TEST(ParseJson, AcceptsObjectsAndArrays) {
    EXPECT_EQ(Parsed(R"({"a": [1, -2.5e+3, true, null, "x"]})")["a"].size(), 5U);
    EXPECT_TRUE(Parsed("[]").isArray());
    EXPECT_TRUE(Parsed(" \r\n\t{}\n ").isObject());
}

TEST(ParseJson, RefusesARootThatIsNeitherObjectNorArray) {
    for (const char* text : {"1", "\"text\"", "true", "null", "", "   "}) {
        EXPECT_FALSE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, RefusesComments) {
    EXPECT_FALSE(IsAccepted("{} // end"));
    EXPECT_FALSE(IsAccepted("/* begin */ {}"));
    EXPECT_FALSE(IsAccepted("{\"a\": /* one */ 1}"));
    EXPECT_FALSE(IsAccepted("[1 /* behind the last element */]"));
    EXPECT_TRUE(IsAccepted("[\"/* no comment */\"]"));
}

TEST(ParseJson, RefusesTrailingText) {
    for (const char* text : {"{} x", "{}{}", "[],", "{}]"}) {
        EXPECT_FALSE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, RefusesRepeatedKeys) {
    EXPECT_FALSE(IsAccepted(R"({"a": 1, "a": 2})"));
    EXPECT_FALSE(IsAccepted(R"({"a": {"b": 1, "b": 1}})"));
    EXPECT_FALSE(IsAccepted(R"({"a": 1, "\u0061": 2})"));
}

TEST(ParseJson, RefusesWhatOnlyLooksLikeJson) {
    for (const char* text : {"{'a': 1}", "{a: 1}", "[1,]", "[,1]", "{\"a\": 1,}", "[1 2]", "[NaN]", "[Infinity]",
                             "[-Infinity]", "[True]", "{\"a\"}", "{\"a\":}", "{1: 2}", "[", "{\"a\": [}"}) {
        EXPECT_FALSE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, RefusesNumbersThatJsonDoesNotKnow) {
    for (const char* text : {"[01]", "[-01]", "[1.]", "[.5]", "[-]", "[+1]", "[1e]", "[1e+]", "[1.e2]", "[0x10]",
                             "[1.2.3]", "[1-2]", "[--1]", "[-.5]"}) {
        EXPECT_FALSE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, AcceptsEveryFormOfNumber) {
    for (const char* text : {"[0]", "[-0]", "[10]", "[0.5]", "[-1.25]", "[1e5]", "[1E-5]", "[2.5e+10]",
                             "[18446744073709551615]", "[123456789012345678901234567890]"}) {
        EXPECT_TRUE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, RefusesUnescapedControlCharactersInStrings) {
    EXPECT_FALSE(IsAccepted("[\"a\nb\"]"));
    EXPECT_FALSE(IsAccepted("[\"a\tb\"]"));
    EXPECT_FALSE(IsAccepted("[\"a\0b\"]"s));
    EXPECT_FALSE(IsAccepted("{\"\x01\": 1}"));
}

// Strings are looked at in portions.
TEST(ParseJson, SeesEachByteOfAStringWhereverItStands) {
    for (std::size_t length = 1; length <= 20; ++length) {
        for (std::size_t at = 0; at < length; ++at) {
            for (int byte = 0; byte < 0x80; ++byte) {
                std::string text(length, 'x');
                text[at] = static_cast<char>(byte);
                const bool isPlain = byte >= 0x20 && byte != '"' && byte != '\\';
                EXPECT_EQ(IsAccepted("[\"" + text + "\"]"), isPlain) << length << " " << at << " " << byte;
            }
            const std::string before(at, 'x');
            const std::string behind(length - at, 'x');
            EXPECT_EQ(Parsed("[\"" + before + R"(\")" + behind + "\"]")[0].asString(), before + "\"" + behind);
            EXPECT_EQ(Parsed("[\"" + before + "\xC2\xA2" + behind + "\"]")[0].asString(), before + "\xC2\xA2" + behind);
        }
    }
}

TEST(ParseJson, RefusesStringsThatAreBroken) {
    for (const char* text : {R"(["abc])", R"(["\x41"])", R"(["\u12"])", R"(["\uD800"])", R"(["\)", R"(["\"])"}) {
        EXPECT_FALSE(IsAccepted(text)) << text;
    }
}

TEST(ParseJson, ReadsEscapes) {
    EXPECT_EQ(Parsed(R"(["\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"])")[0].asString(),
              "\"\\/\b\f\n\r\t\xC3\xA9\xF0\x9F\x98\x80");
}

TEST(ParseJson, ANulByteDoesNotEndTheDocument) {
    EXPECT_FALSE(IsAccepted("{}\0"s));
    EXPECT_FALSE(IsAccepted("{}\0 garbage"s));
}

TEST(ParseJson, ReadsExactlyTheGivenLength) {
    const std::string text = R"({"a": 1} and more)";
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.data(), 8, value), 0);
    EXPECT_EQ(value["a"].asInt(), 1);
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.data(), 7, value), -1);
    EXPECT_EQ(JsonUtils::ParseJsonStr(text.data(), text.size(), value), -1);
}

TEST(ParseJson, ANullTextIsRefused) {
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr(nullptr, 0, value), -1);
}

TEST(ParseJson, AFailureLeavesTheValueUntouched) {
    Json::Value value("before");
    EXPECT_EQ(JsonUtils::ParseJsonStr("{\"a\": 1, \"b\"", value), -1);
    EXPECT_EQ(value, Json::Value("before"));
}

TEST(ParseJson, TooDeepNestingIsRefusedAndDoesNotThrow) {
    EXPECT_TRUE(IsAccepted(Nested(100)));
    EXPECT_FALSE(IsAccepted(Nested(100000)));
    EXPECT_FALSE(IsAccepted(std::string(1000000, '[')));
}

TEST(ParseJson, ANumberBeyondADoubleDoesNotThrow) {
    Json::Value value;
    const int result = JsonUtils::ParseJsonStr("{\"a\": 1e999}", value);
    if (result == 0) {
        EXPECT_EQ(JsonUtils::GetIntValue(value, "a", 7), 7);
        EXPECT_EQ(JsonUtils::GetInt64Value(value, "a", 7), 7);
    } else {
        EXPECT_EQ(result, -1);
    }
}

TEST(ParseJson, AFailureSaysWhereAndWhy) {
    const auto faultOf = [](const std::string& text) {
        Json::Value value;
        JsonUtils::Fault fault;
        EXPECT_EQ(JsonUtils::ParseJsonStr(text, value, fault), -1) << text;
        return std::to_string(fault.line) + ":" + std::to_string(fault.column) + " " + fault.reason;
    };
    EXPECT_EQ(faultOf("{\"a\" 1}"), "1:6 Missing ':' after object member name");
    EXPECT_EQ(faultOf("[1,\n\n  2 3]"), "3:5 Missing ',' or ']' in array declaration");
    EXPECT_EQ(faultOf("[\n\"\ty\"]"), "2:2 a control character in a string");
    EXPECT_EQ(faultOf("\n01"), "2:2 a number that is not written as JSON has it");
    EXPECT_EQ(faultOf(std::string("\0", 1)), "1:1 a NUL byte");
    EXPECT_EQ(faultOf(Nested(100000)), "0:0 it is nested too deeply");
}

TEST(ParseJson, ACommaBehindTheLastMemberIsRefusedWhateverItsName) {
    Json::Value value;
    for (const std::string text : {"{\"\":0,}", "{\"a\":0,}", "{\"\":0 , \n}", "{,}", "[{\"\":[],}]"}) {
        EXPECT_EQ(JsonUtils::ParseJsonStr(text, value), -1) << text;
    }
    EXPECT_EQ(JsonUtils::ParseJsonStr("{\"\":\",}\"}", value), 0);
    EXPECT_EQ(value[""], ",}");
    EXPECT_EQ(JsonUtils::ParseJsonStr("{}", value), 0);
}

TEST(ParseJson, OneByteOrderMarkIsPassedOver) {
    const std::string mark = "\xEF\xBB\xBF";
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr(mark + "[1]", value), 0);
    EXPECT_EQ(value[0], 1);
    EXPECT_EQ(JsonUtils::ParseJsonStr(mark + mark + "[1]", value), -1);
    EXPECT_EQ(JsonUtils::ParseJsonStr("[1]" + mark, value), -1);
    EXPECT_EQ(JsonUtils::ParseJsonStr(mark, value), -1);
}

TEST(ParseJson, PlacesAreCountedBehindAByteOrderMark) {
    const std::string mark = "\xEF\xBB\xBF";
    for (const std::string text : {"1", "\"a\"", "{\"a\" 1}", "[\n\"\ty\"]", "01", ""}) {
        Json::Value value;
        JsonUtils::Fault plain;
        JsonUtils::Fault marked;
        EXPECT_EQ(JsonUtils::ParseJsonStr(text, value, plain), -1) << text;
        EXPECT_EQ(JsonUtils::ParseJsonStr(mark + text, value, marked), -1) << text;
        EXPECT_EQ(marked.line, plain.line) << text;
        EXPECT_EQ(marked.column, plain.column) << text;
        EXPECT_EQ(marked.reason, plain.reason) << text;
    }
}

TEST(ParseJson, WhatIsAcceptedHasNoFault) {
    Json::Value value;
    JsonUtils::Fault fault;
    EXPECT_EQ(JsonUtils::ParseJsonStr("[1]", value, fault), 0);
    EXPECT_EQ(value[0], 1);
    EXPECT_EQ(fault.reason, "");
}

TEST(JsonTokens, SeeNothingPastTheEnd) {
    const std::string text = "[12345]";
    EXPECT_FALSE(FindBadJsonToken(text.data(), 3));
    EXPECT_TRUE(FindBadJsonToken("[1.5]", 3));
    EXPECT_TRUE(FindBadJsonToken("[\"ab\"]", 4));
    EXPECT_FALSE(FindBadJsonToken("", 0));
}

TEST(JsonMembers, AMissingMemberGivesTheFallback) {
    const Json::Value object = Parsed("{}");
    EXPECT_EQ(JsonUtils::GetStringValue(object, "a", "none"), "none");
    EXPECT_EQ(JsonUtils::GetIntValue(object, "a", 7), 7);
    EXPECT_EQ(JsonUtils::GetInt64Value(object, "a", 8), 8);
    EXPECT_TRUE(JsonUtils::GetBoolValue(object, "a", true));
    EXPECT_FALSE(JsonUtils::IsArrayValue(object, "a"));
}

TEST(JsonMembers, WhatIsNoObjectGivesTheFallback) {
    for (const Json::Value& value : {Json::Value(), Json::Value(3), Json::Value("text"), Parsed("[1]")}) {
        EXPECT_EQ(JsonUtils::GetStringValue(value, "a", "none"), "none");
        EXPECT_EQ(JsonUtils::GetIntValue(value, "a", 7), 7);
        EXPECT_EQ(JsonUtils::GetInt64Value(value, "a", 8), 8);
        EXPECT_TRUE(JsonUtils::GetBoolValue(value, "a", true));
        EXPECT_FALSE(JsonUtils::IsArrayValue(value, "a"));
        Json::Value out("before");
        EXPECT_FALSE(JsonUtils::GetSubobjectValue(value, "a", out));
        EXPECT_EQ(out, Json::Value("before"));
    }
}

TEST(JsonMembers, AnotherTypeGivesTheFallback) {
    const Json::Value object = Parsed(R"({"t": "5", "n": 5, "b": true, "z": null, "l": [5], "o": {"x": 5}})");
    for (const char* key : {"n", "b", "z", "l", "o"}) {
        EXPECT_EQ(JsonUtils::GetStringValue(object, key, "none"), "none") << key;
    }
    for (const char* key : {"t", "b", "z", "l", "o"}) {
        EXPECT_EQ(JsonUtils::GetIntValue(object, key, 7), 7) << key;
        EXPECT_EQ(JsonUtils::GetInt64Value(object, key, 7), 7) << key;
    }
    for (const char* key : {"t", "n", "z", "l", "o"}) {
        EXPECT_TRUE(JsonUtils::GetBoolValue(object, key, true)) << key;
        EXPECT_FALSE(JsonUtils::GetBoolValue(object, key, false)) << key;
    }
    for (const char* key : {"t", "n", "b", "z", "o"}) {
        EXPECT_FALSE(JsonUtils::IsArrayValue(object, key)) << key;
    }
}

TEST(JsonMembers, AreReadWhenTheyAreOfTheType) {
    const Json::Value object = Parsed(R"({"t": "text", "n": -5, "b": true, "l": [5]})");
    EXPECT_EQ(JsonUtils::GetStringValue(object, "t", "none"), "text");
    EXPECT_EQ(JsonUtils::GetIntValue(object, "n", 7), -5);
    EXPECT_TRUE(JsonUtils::GetBoolValue(object, "b", false));
    EXPECT_TRUE(JsonUtils::IsArrayValue(object, "l"));
}

TEST(JsonMembers, NumbersOutOfRangeGiveTheFallback) {
    const Json::Value object =
        Parsed(R"({"int": 2147483647, "over": 2147483648, "under": -2147483649, "long": 9223372036854775807,
                   "long_over": 9223372036854775808, "huge": 1e300, "tiny": -1e300, "half": 1.5, "whole": 3.0})");
    EXPECT_EQ(JsonUtils::GetIntValue(object, "int", 7), std::numeric_limits<int>::max());
    for (const char* key : {"over", "under", "long", "long_over", "huge", "tiny", "half"}) {
        EXPECT_EQ(JsonUtils::GetIntValue(object, key, 7), 7) << key;
    }
    EXPECT_EQ(JsonUtils::GetInt64Value(object, "over", 7), 2147483648);
    EXPECT_EQ(JsonUtils::GetInt64Value(object, "long", 7), std::numeric_limits<std::int64_t>::max());
    for (const char* key : {"long_over", "huge", "tiny", "half"}) {
        EXPECT_EQ(JsonUtils::GetInt64Value(object, key, 7), 7) << key;
    }
    EXPECT_EQ(JsonUtils::GetIntValue(object, "whole", 7), 3);
}

TEST(JsonMembers, ADoubleJustBeyondSixtyFourBitsGivesTheFallback) {
    Json::Value object;
    object["limit"] = 9223372036854775808.0;
    object["nan"] = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(JsonUtils::GetInt64Value(object, "limit", 7), 7);
    EXPECT_EQ(JsonUtils::GetInt64Value(object, "nan", 7), 7);
    EXPECT_EQ(JsonUtils::GetIntValue(object, "nan", 7), 7);
}

TEST(JsonMembers, ASubobjectIsCopiedWhateverItsType) {
    Json::Value object = Parsed(R"({"o": {"x": [1]}, "z": null})");
    Json::Value out("before");
    ASSERT_TRUE(JsonUtils::GetSubobjectValue(object, "z", out));
    EXPECT_TRUE(out.isNull());
    ASSERT_TRUE(JsonUtils::GetSubobjectValue(object, "o", out));
    object["o"]["x"][0] = 2;
    EXPECT_EQ(out["x"][0].asInt(), 1);
}

TEST(JsonMembers, ASubobjectMayTakeThePlaceOfItsParent) {
    Json::Value value = Parsed(R"({"o": {"o": 5}})");
    ASSERT_TRUE(JsonUtils::GetSubobjectValue(value, "o", value));
    EXPECT_EQ(JsonUtils::GetIntValue(value, "o", 7), 5);
}

TEST(JsonToString, IsOneLineWithMembersInByteOrder) {
    const Json::Value value = Parsed(R"({"b": [1, {"y": null, "x": true}], "a": "t", "B": -1})");
    EXPECT_EQ(JsonUtils::JsonToString(value), R"({"B":-1,"a":"t","b":[1,{"x":true,"y":null}]})");
}

TEST(JsonToString, EscapesControlCharactersAndQuotes) {
    Json::Value value(Json::objectValue);
    value["a"] = "q\" b\\ n\n t\t e\x1b z\0."s;
    const std::string text = JsonUtils::JsonToString(value);
    EXPECT_EQ(text, R"({"a":"q\" b\\ n\n t\t e\u001b z\u0000."})");
    EXPECT_EQ(Parsed(text), value);
}

TEST(JsonToString, BytesThatAreNotUtf8AreEscapedAndReadBack) {
    Json::Value value(Json::objectValue);
    value["path"] = "/tmp/\xFF\xC3(\x80\xE2\x82\xED\xB3\xBF/caf\xC3\xA9\\udcff";
    const std::string text = JsonUtils::JsonToString(value);
    EXPECT_EQ(text,
              "{\"path\":\"/tmp/\\udcff\\udcc3(\\udc80\\udce2\\udc82\\udced\\udcb3\\udcbf/caf\xC3\xA9\\\\udcff\"}");
    EXPECT_EQ(JsonUtils::GetStringValue(Parsed(text), "path", ""), value["path"].asString());
}

TEST(JsonToString, EveryByteReadsBack) {
    std::string bytes;
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            bytes += {static_cast<char>(first), static_cast<char>(second)};
        }
    }
    Json::Value value(Json::objectValue);
    value[bytes] = bytes;
    const std::string text = JsonUtils::JsonToString(value);
    EXPECT_EQ(Parsed(text), value);
    EXPECT_EQ(JsonUtils::JsonToString(Parsed(text)), text);
}

TEST(ParseJsonStr, ThePairThatMakesACharacterIsNotTakenForBytes) {
    EXPECT_EQ(Parsed(R"(["\ud83d\udcff\uDCfF\uDC7f"])")[0].asString(), "\xF0\x9F\x93\xBF\xFF\xED\xB1\xBF");
    EXPECT_EQ(Parsed("[\"raw \xFF \\\\udcff \\udc80\"]")[0].asString(), "raw \xFF \\udcff \x80");
}

TEST(JsonToString, LosesNoNumber) {
    const std::string text = R"([9223372036854775807,-9223372036854775808,18446744073709551615])";
    EXPECT_EQ(JsonUtils::JsonToString(Parsed(text)), text);
}

TEST(JsonToString, WritesEveryKindOfRoot) {
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value()), "null");
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value("x")), "\"x\"");
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value(Json::arrayValue)), "[]");
    EXPECT_EQ(JsonUtils::JsonToString(Json::Value(Json::objectValue)), "{}");
}

TEST(JsonToString, LeavesCommentsOut) {
    Json::Value value(5);
    value.setComment(std::string("// a remark"), Json::commentBefore);
    EXPECT_EQ(JsonUtils::JsonToString(value), "5");
}
