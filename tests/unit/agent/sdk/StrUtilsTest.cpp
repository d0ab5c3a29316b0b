#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/StrUtils.h"

using SDK::StrUtils;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(Trim, TakesWhiteSpaceOffBothEndsOnly) {
    EXPECT_EQ(StrUtils::Trim(" \t\n\v\f\ra b\t c \r\n"), "a b\t c");
}

TEST(Trim, ATextOfWhiteSpaceBecomesEmpty) {
    EXPECT_EQ(StrUtils::Trim(" \t\r\n"), "");
    EXPECT_EQ(StrUtils::Trim(""), "");
}

TEST(Trim, BytesOutsideAsciiAreNoWhiteSpace) {
    EXPECT_EQ(StrUtils::Trim("\xA0text\x85"), "\xA0text\x85");
    EXPECT_EQ(StrUtils::Trim(std::string("\0 ", 2)), std::string("\0", 1));
}

TEST(EasySplit, GivesThePiecesInOrder) {
    EXPECT_THAT(StrUtils::EasySplit("a b c", " "), ElementsAre("a", "b", "c"));
}

TEST(EasySplit, ARunOfSeparatorsCountsAsOne) {
    EXPECT_THAT(StrUtils::EasySplit("  a   b ", " "), ElementsAre("a", "b"));
}

TEST(EasySplit, AnyByteOfTheSeparatorsSeparates) {
    EXPECT_THAT(StrUtils::EasySplit("a,b;,c d", ",;"), ElementsAre("a", "b", "c d"));
}

TEST(EasySplit, ATextWithoutPiecesGivesNone) {
    EXPECT_THAT(StrUtils::EasySplit("", " "), IsEmpty());
    EXPECT_THAT(StrUtils::EasySplit("   ", " "), IsEmpty());
}

TEST(EasySplit, WithoutSeparatorsTheTextIsOnePiece) {
    EXPECT_THAT(StrUtils::EasySplit("a b", ""), ElementsAre("a b"));
    EXPECT_THAT(StrUtils::EasySplit("", ""), IsEmpty());
}
