#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/sdk/CommandLine.h"

using SDK::SplitCommandLine;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> Words(const std::string& command) {
    std::vector<std::string> words{"before"};
    EXPECT_TRUE(SplitCommandLine(command, words)) << command;
    return words;
}

void IsRefused(const std::string& command) {
    std::vector<std::string> words{"before"};
    EXPECT_FALSE(SplitCommandLine(command, words)) << command;
    EXPECT_THAT(words, IsEmpty());
}

} // namespace

TEST(CommandLine, BlanksSeparateWords) {
    EXPECT_THAT(Words("a b"), ElementsAre("a", "b"));
    EXPECT_THAT(Words("  a   b  "), ElementsAre("a", "b"));
}

TEST(CommandLine, SingleQuotesGroupAndNothingInsideHasAMeaning) {
    EXPECT_THAT(Words(R"(a 'b c' 'd"e' 'f\g' 'h\')"), ElementsAre("a", "b c", "d\"e", "f\\g", "h\\"));
}

TEST(CommandLine, DoubleQuotesGroup) {
    EXPECT_THAT(Words(R"(a "b  c" "d'e")"), ElementsAre("a", "b  c", "d'e"));
}

TEST(CommandLine, QuotesMayStandInsideAWord) {
    EXPECT_THAT(Words(R"(a'b 'c"d "e)"), ElementsAre("ab cd e"));
}

TEST(CommandLine, EmptyQuotesMakeAnEmptyWord) {
    EXPECT_THAT(Words(R"(a '' "" b)"), ElementsAre("a", "", "", "b"));
    EXPECT_THAT(Words("''"), ElementsAre(""));
    EXPECT_THAT(Words("a''"), ElementsAre("a"));
}

TEST(CommandLine, ABackslashTakesTheNextByteAsItIs) {
    EXPECT_THAT(Words(R"(a\ b \'c \"d \\e \n)"), ElementsAre("a b", "'c", "\"d", "\\e", "n"));
    EXPECT_THAT(Words(R"("a\"b" "\\" "\n")"), ElementsAre("a\"b", "\\", "n"));
    EXPECT_THAT(Words(R"(\ )"), ElementsAre(" "));
}

TEST(CommandLine, ABackslashAtTheEndStandsForItself) {
    EXPECT_THAT(Words(R"(a\)"), ElementsAre("a\\"));
}

TEST(CommandLine, NothingElseHasAMeaning) {
    EXPECT_THAT(Words("a;b | c && $HOME `d` $(e) *.f >g ~ #h {i,j}\tk\nl"),
                ElementsAre("a;b", "|", "c", "&&", "$HOME", "`d`", "$(e)", "*.f", ">g", "~", "#h", "{i,j}\tk\nl"));
}

TEST(CommandLine, AnOpenQuoteIsRefused) {
    IsRefused("a 'b");
    IsRefused("a \"b");
    IsRefused("a 'b\"");
    IsRefused(R"(a "b\")");
    IsRefused("'");
}

TEST(CommandLine, NoWordsAreRefused) {
    IsRefused("");
    IsRefused("   ");
}

TEST(CommandLine, EveryPathInSingleQuotesIsOneWord) {
    for (int byte = 1; byte < 256; ++byte) {
        if (byte != '\'') {
            const std::string path = std::string("/tmp/a") + static_cast<char>(byte) + "b";
            EXPECT_THAT(Words("program -o '" + path + "'"), ElementsAre("program", "-o", path));
        }
    }
}
