#include "ctl/Output.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "ctl/Client.h"

namespace {

using Ctl::Escape;

TEST(OutputTest, PlainTextAndUtf8ArePrintedAsTheyAre) {
    EXPECT_EQ(Escape("/usr/bin/tool -x \"y\""), "/usr/bin/tool -x \"y\"");
    EXPECT_EQ(Escape("/home/jörg/日本/𝄞"), "/home/jörg/日本/𝄞");
}

TEST(OutputTest, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Escape("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(Escape("\033[31m\x7f"), "\\x1b[31m\\x7f");
    EXPECT_EQ(Escape(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(Escape("\xc2\x9b"), "\\xc2\\x9b");          // a C1 control, written as UTF-8
    EXPECT_EQ(Escape("\xe2\x80\xae"), "\\xe2\\x80\\xae"); // turns the direction of what follows
}

TEST(OutputTest, BytesThatAreNotUtf8BecomeVisible) {
    EXPECT_EQ(Escape("a\xff\xfe"), "a\\xff\\xfe");
    EXPECT_EQ(Escape("\xc3"), "\\xc3");                            // cut short
    EXPECT_EQ(Escape("\xc0\x8a"), "\\xc0\\x8a");                   // overlong newline
    EXPECT_EQ(Escape("\xe0\x80\x8a"), "\\xe0\\x80\\x8a");          // overlong newline
    EXPECT_EQ(Escape("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // a surrogate
    EXPECT_EQ(Escape("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // beyond the last character
}

TEST(OutputTest, ABackslashIsDoubledSoThatEveryTextReadsBackUnambiguously) {
    EXPECT_EQ(Escape("\\x1b"), "\\\\x1b");
}

TEST(OutputTest, TimesAreLocalAndReadable) {
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(Ctl::FormatTime(1767225599), "2025-12-31 23:59:59");
}

TEST(OutputTest, DurationsNameTheirTwoGreatestUnits) {
    EXPECT_EQ(Ctl::FormatDuration(0), "0 s");
    EXPECT_EQ(Ctl::FormatDuration(59), "59 s");
    EXPECT_EQ(Ctl::FormatDuration(61), "1 min 1 s");
    EXPECT_EQ(Ctl::FormatDuration(3600), "1 h");
    EXPECT_EQ(Ctl::FormatDuration(90061), "1 d 1 h");
}

TEST(OutputTest, PadCountsPlacesAndNotBytes) {
    EXPECT_EQ(Ctl::Pad("ö", 3), "ö  ");
    EXPECT_EQ(Ctl::Pad("long", 2), "long");
}

TEST(OutputTest, FieldsOfAnyKindBecomeText) {
    Json::Value object(Json::objectValue);
    object["text"] = "a";
    object["number"] = 5;
    object["flag"] = true;
    object["none"] = Json::nullValue;

    EXPECT_EQ(Ctl::FieldText(object, "text"), "a");
    EXPECT_EQ(Ctl::FieldText(object, "number"), "5");
    EXPECT_EQ(Ctl::FieldText(object, "flag"), "true");
    EXPECT_EQ(Ctl::FieldText(object, "none"), "-");
    EXPECT_EQ(Ctl::FieldText(object, "missing"), "-");
    EXPECT_EQ(Ctl::FieldText(Json::Value("no object"), "text"), "-");
}

TEST(OutputTest, AQueryIsEncoded) {
    EXPECT_EQ(Ctl::EncodeQuery("a b&c=d/é~-._9"), "a%20b%26c%3Dd%2F%C3%A9~-._9");
    EXPECT_EQ(Ctl::EncodeQuery(std::string("\0", 1)), "%00");
}

} // namespace
