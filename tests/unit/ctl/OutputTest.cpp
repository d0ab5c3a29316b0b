#include "ctl/Output.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "ctl/Client.h"

namespace {

TEST(OutputTest, TextFromOutsideIsEscaped) {
    EXPECT_EQ(Ctl::Escape("/home/jörg\n\033[31m\xff\\"), "/home/jörg\\n\\x1b[31m\\xff\\\\");
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
