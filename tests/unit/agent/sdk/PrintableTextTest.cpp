#include "sdk/PrintableText.h"

#include <gtest/gtest.h>

namespace {

std::string Escape(const std::string& text) {
    return SDK::PrintableText::Escape(text);
}

TEST(PrintableTextTest, PlainTextAndUtf8ArePrintedAsTheyAre) {
    EXPECT_EQ(Escape("/usr/bin/tool -x \"y\""), "/usr/bin/tool -x \"y\"");
    EXPECT_EQ(Escape("/home/jörg/日本/𝄞"), "/home/jörg/日本/𝄞");
}

TEST(PrintableTextTest, ControlCharactersBecomeVisible) {
    EXPECT_EQ(Escape("a\nb\tc\rd"), "a\\nb\\tc\\rd");
    EXPECT_EQ(Escape("\033[31m\x7f"), "\\x1b[31m\\x7f");
    EXPECT_EQ(Escape(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(Escape("\xc2\x9b"), "\\xc2\\x9b");          // a C1 control, written as UTF-8
    EXPECT_EQ(Escape("\xe2\x80\xae"), "\\xe2\\x80\\xae"); // turns the direction of what follows
}

TEST(PrintableTextTest, BytesThatAreNotUtf8BecomeVisible) {
    EXPECT_EQ(Escape("a\xff\xfe"), "a\\xff\\xfe");
    EXPECT_EQ(Escape("\xc3"), "\\xc3");                            // cut short
    EXPECT_EQ(Escape("\xc0\x8a"), "\\xc0\\x8a");                   // overlong newline
    EXPECT_EQ(Escape("\xe0\x80\x8a"), "\\xe0\\x80\\x8a");          // overlong newline
    EXPECT_EQ(Escape("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // a surrogate
    EXPECT_EQ(Escape("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // beyond the last character
}

TEST(PrintableTextTest, ABackslashIsDoubledSoThatEveryTextReadsBackUnambiguously) {
    EXPECT_EQ(Escape("\\x1b"), "\\\\x1b");
}

} // namespace
