#include "utils/config.h"

#include <filesystem>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "sdk/ModuleLog.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using TestSupport::LogRecorder;
using TestSupport::TempDir;
using namespace utils::config;

constexpr std::size_t LARGEST_UPDATABLE_BYTES = 10485760;
const std::string UNTOUCHED = "untouched";

class ConfigFile : public ::testing::Test {
protected:
    void Given(const std::string& content) { dir.Write("state.ini", content); }
    std::string Content() const { return dir.Read("state.ini"); }

    // The value that a look-up finds, UNTOUCHED when it fails and leaves the output alone.
    std::string Look(const char* section, const char* key) const {
        std::string value = UNTOUCHED;
        const bool found = get_config_str(path.c_str(), section, key, value);
        if (!found && value != UNTOUCHED) {
            return "failed, but set to " + value;
        }
        return found ? value : UNTOUCHED;
    }

    bool Set(const char* section, const char* key, const char* value) const {
        return set_config_str(path.c_str(), section, key, value);
    }

    TempDir dir;
    std::string path = dir / "state.ini";
    LogRecorder log;
};

using ConfigFileReader = ConfigFile;
using ConfigFileWriter = ConfigFile;

// ---- Reading strings -------------------------------------------------------------------------------

TEST_F(ConfigFileReader, AValueIsFoundBySectionAndKey) {
    Given("[One]\nKey=first\n[Two]\nKey=second\nOther=third\n");
    EXPECT_EQ(Look("One", "Key"), "first");
    EXPECT_EQ(Look("Two", "Key"), "second");
    EXPECT_EQ(Look("Two", "Other"), "third");
}

TEST_F(ConfigFileReader, ANullPathFindsNothing) {
    std::string text = UNTOUCHED;
    int number = 17;
    bool flag = true;
    EXPECT_FALSE(get_config_str(nullptr, "S", "K", text));
    EXPECT_FALSE(get_config_int(nullptr, "S", "K", number));
    EXPECT_FALSE(get_config_bool(nullptr, "S", "K", flag));
    EXPECT_EQ(text, UNTOUCHED);
    EXPECT_EQ(number, 17);
    EXPECT_TRUE(flag);
}

TEST_F(ConfigFileReader, AMissingFileFindsNothingForAnyType) {
    std::string text = UNTOUCHED;
    int number = 17;
    bool flag = true;
    EXPECT_FALSE(get_config_str(path.c_str(), "S", "K", text));
    EXPECT_FALSE(get_config_int(path.c_str(), "S", "K", number));
    EXPECT_FALSE(get_config_bool(path.c_str(), "S", "K", flag));
    EXPECT_EQ(text, UNTOUCHED);
    EXPECT_EQ(number, 17);
    EXPECT_TRUE(flag);
}

TEST_F(ConfigFileReader, ADirectoryInThePlaceOfTheFileFindsNothing) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, AnEmptyFileFindsNothing) {
    Given("");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, BlanksAroundTheKeyTheEqualsSignAndTheValueDoNotCount) {
    Given("[S]\n \t K \t = \t V \t \n");
    EXPECT_EQ(Look("S", "K"), "V");
}

TEST_F(ConfigFileReader, EveryWhiteSpaceCharacterOfTheCLocaleIsTrimmed) {
    Given("\v\f\t\r [S]\r\v\f \n\v\f\t\r K\v\f\t\r =\v\f\t\r V\v\f\t\r \n");
    EXPECT_EQ(Look("S", "K"), "V");
}

TEST_F(ConfigFileReader, ACrLfFileReadsLikeAnLfFile) {
    Given("[S]\r\nA=1\r\nK=V\r\n");
    EXPECT_EQ(Look("S", "K"), "V");
}

TEST_F(ConfigFileReader, BlanksInsideAValueAreKept) {
    Given("[S]\nK=  a  b  \n");
    EXPECT_EQ(Look("S", "K"), "a  b");
}

TEST_F(ConfigFileReader, AValueMayHoldEqualsSigns) {
    Given("[S]\nK=a=b==c\n");
    EXPECT_EQ(Look("S", "K"), "a=b==c");
}

TEST_F(ConfigFileReader, AValueMayBeEmpty) {
    Given("[S]\nK=\n");
    EXPECT_EQ(Look("S", "K"), "");
}

TEST_F(ConfigFileReader, ANumberSignBehindAValueBelongsToTheValue) {
    Given("[S]\nK=V # no remark\n");
    EXPECT_EQ(Look("S", "K"), "V # no remark");
}

TEST_F(ConfigFileReader, TheLastLineNeedsNoLineFeed) {
    Given("[S]\nK=V");
    EXPECT_EQ(Look("S", "K"), "V");
}

TEST_F(ConfigFileReader, CommentsAreSkippedAlsoWhenIndented) {
    Given("[S]\n#K=wrong\n  # K=wrong too\nK=V\n");
    EXPECT_EQ(Look("S", "K"), "V");
    EXPECT_EQ(Look("S", "#K"), UNTOUCHED);
    EXPECT_EQ(Look("S", "# K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, ASemicolonBeginsAnOrdinaryLine) {
    Given(";[S]\n[S]\n;K=V\n");
    EXPECT_EQ(Look("S", ";K"), "V");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, ACommentedHeaderIsNoHeader) {
    Given("#[S]\nK=V\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, BlanksOutsideAndInsideTheBracketsDoNotCount) {
    Given("  [ S\t]  \nK=V\n");
    EXPECT_EQ(Look("S", "K"), "V");
    EXPECT_EQ(Look(" S\t", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, TextBehindTheClosingBracketIsIgnored) {
    Given("[S] remark ] = x\nK=V\n");
    EXPECT_EQ(Look("S", "K"), "V");
}

TEST_F(ConfigFileReader, AHeaderWithoutAClosingBracketIsIgnored) {
    Given("[S]\nA=1\n[T\nK=V\n");
    EXPECT_EQ(Look("S", "K"), "V");
    EXPECT_EQ(Look("T", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, AnEmptyHeaderIsIgnored) {
    Given("[S]\nA=1\n[]\nK=V\n");
    EXPECT_EQ(Look("S", "K"), "V");
    EXPECT_EQ(Look("", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, AHeaderOfBlanksIsAHeader) {
    Given("[S]\nA=1\n[ ]\nK=V\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
    EXPECT_EQ(Look("", "K"), "V");
}

TEST_F(ConfigFileReader, SectionNamesAndKeysAreCaseSensitive) {
    Given("[S]\nK=V\n");
    EXPECT_EQ(Look("s", "K"), UNTOUCHED);
    EXPECT_EQ(Look("S", "k"), UNTOUCHED);
}

TEST_F(ConfigFileReader, LinesAheadOfTheFirstHeaderAreNeverFound) {
    Given("K=V\n[S]\nL=W\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
    EXPECT_EQ(Look("", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, ALineWithoutAnEqualsSignOrBeginningWithOneIsSkipped) {
    Given("[S]\nK\n=V\nK=W\n");
    EXPECT_EQ(Look("S", "K"), "W");
    EXPECT_EQ(Look("S", ""), UNTOUCHED);
}

TEST_F(ConfigFileReader, OfAKeyThatOccursTwiceTheFirstIsRead) {
    Given("[S]\nK=first\nK=second\n");
    EXPECT_EQ(Look("S", "K"), "first");
}

TEST_F(ConfigFileReader, AKeyInARepeatedBlockOfTheSectionIsNotFound) {
    Given("[S]\nA=1\n[T]\nB=2\n[S]\nK=V\n");
    EXPECT_EQ(Look("S", "A"), "1");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, TheSameHeaderAgainAtOnceEndsTheSection) {
    Given("[S]\nA=1\n[S]\nK=V\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, AKeyOfAnotherSectionIsNotFound) {
    Given("[S]\nA=1\n[T]\nK=V\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
}

TEST_F(ConfigFileReader, BytesBeyondAsciiAreComparedAsTheyAre) {
    Given("[\xC3\x9C]\n\xFF=\xFE\x80\n");
    EXPECT_EQ(Look("\xC3\x9C", "\xFF"), "\xFE\x80");
}

TEST_F(ConfigFileReader, ReadingNeverLogs) {
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
    Given("[S\n[]\nno entry\n");
    EXPECT_EQ(Look("S", "K"), UNTOUCHED);
    EXPECT_TRUE(log.Records().empty());
}

// ---- Reading numbers and truth values --------------------------------------------------------------

struct NumberCase {
    const char* text;
    bool found;
    int value;
};

class ConfigFileNumber : public ConfigFile, public ::testing::WithParamInterface<NumberCase> {};

TEST_P(ConfigFileNumber, IsWhatStandsAtTheValuesStart) {
    Given("[S]\nK=" + std::string(GetParam().text) + "\n");
    int value = 4711;
    EXPECT_EQ(get_config_int(path.c_str(), "S", "K", value), GetParam().found);
    EXPECT_EQ(value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Texts, ConfigFileNumber,
                         ::testing::Values(NumberCase{"12", true, 12}, NumberCase{"  12\t", true, 12},
                                           NumberCase{"12abc", true, 12}, NumberCase{"12 34", true, 12},
                                           NumberCase{"-5", true, -5}, NumberCase{"+5", true, 5},
                                           NumberCase{"007", true, 7}, NumberCase{"0x10", true, 0},
                                           NumberCase{"1.9", true, 1}, NumberCase{"2147483647", true, 2147483647},
                                           NumberCase{"-2147483648", true, -2147483647 - 1},
                                           NumberCase{"abc", false, 4711}, NumberCase{"", false, 4711},
                                           NumberCase{"-", false, 4711}, NumberCase{"true", false, 4711}));

TEST_F(ConfigFileReader, AMissingKeyGivesNoNumberAndNoTruthValue) {
    Given("[S]\nOther=1\n");
    int number = 17;
    bool flag = true;
    EXPECT_FALSE(get_config_int(path.c_str(), "S", "K", number));
    EXPECT_FALSE(get_config_bool(path.c_str(), "S", "K", flag));
    EXPECT_EQ(number, 17);
    EXPECT_TRUE(flag);
}

TEST_F(ConfigFileReader, TrueAndFalseInLowerCaseAreTruthValues) {
    Given("[S]\nYes= true \nNo=\tfalse\n");
    bool yes = false;
    bool no = true;
    EXPECT_TRUE(get_config_bool(path.c_str(), "S", "Yes", yes));
    EXPECT_TRUE(get_config_bool(path.c_str(), "S", "No", no));
    EXPECT_TRUE(yes);
    EXPECT_FALSE(no);
}

class ConfigFileNoTruthValue : public ConfigFile, public ::testing::WithParamInterface<const char*> {};

TEST_P(ConfigFileNoTruthValue, LeavesTheOutputAlone) {
    Given("[S]\nK=" + std::string(GetParam()) + "\n");
    for (const bool before : {true, false}) {
        bool value = before;
        EXPECT_FALSE(get_config_bool(path.c_str(), "S", "K", value));
        EXPECT_EQ(value, before);
    }
}

INSTANTIATE_TEST_SUITE_P(Texts, ConfigFileNoTruthValue,
                         ::testing::Values("True", "TRUE", "False", "1", "0", "yes", "", "true x", "truefalse"));

// ---- Writing ---------------------------------------------------------------------------------------

TEST_F(ConfigFileWriter, AMissingFileBecomesTwoLines) {
    EXPECT_TRUE(Set("S", "K", "V"));
    EXPECT_EQ(Content(), "[S]\nK=V\n");
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ConfigFileWriter, AnEmptyFileBecomesTwoLines) {
    Given("");
    EXPECT_TRUE(Set("S", "K", "V"));
    EXPECT_EQ(Content(), "[S]\nK=V\n");
}

struct RewriteCase {
    const char* name;
    const char* before;
    const char* after;
};

class ConfigFileRewrite : public ConfigFile, public ::testing::WithParamInterface<RewriteCase> {};

// Each sets K of section S to "new".
TEST_P(ConfigFileRewrite, GivesExactlyTheseBytes) {
    Given(GetParam().before);
    EXPECT_TRUE(Set("S", "K", "new"));
    EXPECT_EQ(Content(), GetParam().after);
    EXPECT_TRUE(log.Records().empty());
}

const RewriteCase REWRITES[] = {
    {"AnEntryIsReplacedWithoutBlanks", "[S]\n  K = V  \nL=1", "[S]\nK=new\nL=1\n"},
    {"TheFinalEmptyPieceIsKept", "[S]\nK=V\n", "[S]\nK=new\n\n"},
    {"BlankLinesBecomeBare", "[S]\n \t \nK=V", "[S]\n\nK=new\n"},
    {"CrLfBecomesLf", "# c\r\n[S]\r\nK=V\r\n", "# c\n[S]\nK=new\n\n"},
    {"IndentationIsLostEverywhere", "  # c \n\t[T] \n a = b \n [S]\n K=V", "# c\n[T]\na = b\n[S]\nK=new\n"},
    {"OnlyTheFirstOfTwoEntriesIsReplaced", "[S]\nK=1\nK=2", "[S]\nK=new\nK=2\n"},
    {"ANewKeyGoesDirectlyAheadOfTheNextHeader", "[S]\nL=1\n\n[T]\nM=2", "[S]\nL=1\n\nK=new\n[T]\nM=2\n"},
    {"ANewKeyOfAnEmptySectionGoesAheadOfTheNextHeader", "[S]\n[T]\nM=2", "[S]\nK=new\n[T]\nM=2\n"},
    {"ANewKeyOfTheLastSectionGoesToTheEnd", "[T]\nM=2\n[S]\nL=1", "[T]\nM=2\n[S]\nL=1\nK=new\n"},
    {"ANewKeyBehindAFinalLineFeedLeavesABlankLine", "[S]\nL=1\n", "[S]\nL=1\n\nK=new\n"},
    {"ANewSectionGoesToTheEnd", "[T]\nM=2", "[T]\nM=2\n[S]\nK=new\n"},
    {"ANewSectionBehindAFinalLineFeedLeavesABlankLine", "[T]\nM=2\n", "[T]\nM=2\n\n[S]\nK=new\n"},
    {"AnEntryOfAnotherSectionIsLeftAlone", "[T]\nK=1\n[S]\nK=2", "[T]\nK=1\n[S]\nK=new\n"},
    {"AnEntryAheadOfEveryHeaderIsLeftAlone", "K=1\n[S]\nK=2", "K=1\n[S]\nK=new\n"},
    {"ACommentedEntryIsLeftAlone", "[S]\n#K=1\nK=2", "[S]\n#K=1\nK=new\n"},
    {"ACommentedHeaderIsNoHeader", "#[S]\nK=1", "#[S]\nK=1\n[S]\nK=new\n"},
    {"ALineWithoutAnEqualsSignIsLeftAlone", "[S]\nK\nK=1", "[S]\nK\nK=new\n"},
    {"TheHeaderMayHaveBlanksAroundIt", " \t[S] \nK=1", "[S]\nK=new\n"},
    {"BlanksInTheBracketsHideTheSection", "[ S ]\nK=1", "[ S ]\nK=1\n[S]\nK=new\n"},
    {"ARemarkBehindTheBracketHidesTheSection", "[S] remark\nK=1", "[S] remark\nK=1\n[S]\nK=new\n"},
    {"AHiddenHeaderEndsTheSection", "[S]\nL=1\n[ S ]\nK=1", "[S]\nL=1\nK=new\n[ S ]\nK=1\n"},
    {"AnEmptyHeaderEndsTheSection", "[S]\nL=1\n[]\nK=1", "[S]\nL=1\nK=new\n[]\nK=1\n"},
    {"AHeaderWithoutAClosingBracketEndsTheSection", "[S]\nL=1\n[T\nK=1", "[S]\nL=1\nK=new\n[T\nK=1\n"},
    {"AnEmptyHeaderIsNotTheSection", "[]\nK=1", "[]\nK=1\n[S]\nK=new\n"},
    {"TheSameHeaderAgainEndsTheSection", "[S]\nL=1\n[S]\nK=1", "[S]\nL=1\nK=new\n[S]\nK=1\n"},
    {"ARepeatedSectionIsLeftAlone", "[S]\nK=1\n[S]\nK=2", "[S]\nK=new\n[S]\nK=2\n"},
    {"NamesAreCaseSensitive", "[s]\nK=1\n[S]\nk=2", "[s]\nK=1\n[S]\nk=2\nK=new\n"},
    {"OtherValuesKeepTheirEqualsSigns", "[S]\nL=a=b\nK=c=d", "[S]\nL=a=b\nK=new\n"},
    {"AFileOfOneLineFeedGrows", "\n", "\n\n[S]\nK=new\n"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ConfigFileRewrite, ::testing::ValuesIn(REWRITES),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(ConfigFileWriter, EveryRewriteOfAFileThatEndsInALineFeedAddsABlankLine) {
    EXPECT_TRUE(Set("S", "K", "1"));
    EXPECT_TRUE(Set("S", "K", "2"));
    EXPECT_EQ(Content(), "[S]\nK=2\n\n");
    EXPECT_TRUE(Set("S", "L", "3"));
    EXPECT_EQ(Content(), "[S]\nK=2\n\n\nL=3\n");
}

TEST_F(ConfigFileWriter, AnEmptyKeyReplacesALineThatBeginsWithTheEqualsSign) {
    Given("[S]\n=1");
    EXPECT_TRUE(Set("S", "", "2"));
    EXPECT_EQ(Content(), "[S]\n=2\n");
}

TEST_F(ConfigFileWriter, ASectionThatOnlyTheReaderSeesIsAnsweredFromThereEvenAfterAWrite) {
    Given("[ S ]\nK=old\n");
    EXPECT_TRUE(Set("S", "K", "new"));
    EXPECT_EQ(Look("S", "K"), "old");
}

TEST_F(ConfigFileWriter, WhatWasWrittenIsRead) {
    EXPECT_TRUE(Set("S", "K", "a = b # c"));
    EXPECT_TRUE(Set("T", "K", "other"));
    EXPECT_EQ(Look("S", "K"), "a = b # c");
    EXPECT_EQ(Look("T", "K"), "other");
}

TEST_F(ConfigFileWriter, NumbersAreWrittenInDecimal) {
    EXPECT_TRUE(set_config_int(path.c_str(), "S", "A", -2147483647 - 1));
    EXPECT_TRUE(set_config_int(path.c_str(), "S", "A", 0));
    EXPECT_TRUE(set_config_int(path.c_str(), "T", "B", 2147483647));
    EXPECT_EQ(Content(), "[S]\nA=0\n\n\n[T]\nB=2147483647\n");
    int value = 1;
    EXPECT_TRUE(get_config_int(path.c_str(), "S", "A", value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(set_config_int(path.c_str(), "S", "A", -2147483647 - 1));
    EXPECT_TRUE(get_config_int(path.c_str(), "S", "A", value));
    EXPECT_EQ(value, -2147483647 - 1);
}

TEST_F(ConfigFileWriter, TruthValuesAreWrittenInLowerCase) {
    EXPECT_TRUE(set_config_bool(path.c_str(), "S", "K", true));
    EXPECT_EQ(Content(), "[S]\nK=true\n");
    EXPECT_TRUE(set_config_bool(path.c_str(), "S", "K", false));
    EXPECT_EQ(Content(), "[S]\nK=false\n\n");
}

TEST_F(ConfigFileWriter, ALinkToTheFileIsFollowedWhenItIsRead) {
    Given("[S]\nL=1");
    const std::string link = dir / "link.ini";
    std::filesystem::create_symlink(path, link);
    EXPECT_TRUE(set_config_str(link.c_str(), "S", "K", "V"));
    EXPECT_EQ(TempDir::ReadText(link), "[S]\nL=1\nK=V\n");
}

// ---- Failures --------------------------------------------------------------------------------------

TEST_F(ConfigFileWriter, AFileOfTenMebibytesIsUpdated) {
    const std::string header = "[S]\nK=V\n";
    Given(header + std::string(LARGEST_UPDATABLE_BYTES - header.size(), '#'));
    EXPECT_TRUE(Set("S", "K", "W"));
    EXPECT_EQ(Look("S", "K"), "W");
}

TEST_F(ConfigFileWriter, AFileOfOneByteMoreIsReportedAndNotTouched) {
    const std::string content(LARGEST_UPDATABLE_BYTES + 1, '#');
    Given(content);
    EXPECT_FALSE(Set("S", "K", "V"));
    EXPECT_EQ(Content(), content);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "read [" + path + "] failed."));
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(log.Records()[0].logger, "module_whitelist");
}

TEST_F(ConfigFileWriter, NumbersAndTruthValuesFailAsTextsDo) {
    Given(std::string(LARGEST_UPDATABLE_BYTES + 1, '#'));
    EXPECT_FALSE(set_config_int(path.c_str(), "S", "K", 1));
    EXPECT_FALSE(set_config_bool(path.c_str(), "S", "K", true));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "read [" + path + "] failed."), 2);
}

TEST_F(ConfigFileWriter, ADirectoryInThePlaceOfTheFileIsReported) {
    std::filesystem::create_directory(path);
    EXPECT_FALSE(Set("S", "K", "V"));
    EXPECT_TRUE(std::filesystem::is_directory(path));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "write config [" + path + "] failed."));
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(ConfigFileWriter, AFolderThatIsMissingIsReportedWithThePathAsPassed) {
    const std::string lost = dir.Path() + "/no/../such/file.ini";
    EXPECT_FALSE(set_config_str(lost.c_str(), "S", "K", "V"));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "write config [" + lost + "] failed."));
}

TEST_F(ConfigFileWriter, ANullPathIsReported) {
    std::filesystem::current_path(dir.Path());
    EXPECT_FALSE(set_config_str(nullptr, "S", "K", "V"));
    EXPECT_FALSE(set_config_int(nullptr, "S", "K", 1));
    EXPECT_FALSE(set_config_bool(nullptr, "S", "K", true));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "write config [] failed."), 3);
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
    std::filesystem::current_path("/");
}

TEST_F(ConfigFileWriter, NothingButTheFileIsLeftInTheFolder) {
    EXPECT_TRUE(Set("S", "K", "1"));
    EXPECT_TRUE(Set("S", "K", "2"));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 1);
}

// A file that a reader holds open is never seen half written: a write puts another in its place.
TEST_F(ConfigFileWriter, AWriteReplacesTheFileInOneStep) {
    Given("[S]\nK=1\n");
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(stat(path.c_str(), &before), 0);
    EXPECT_TRUE(Set("S", "K", "2"));
    ASSERT_EQ(stat(path.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
}

} // namespace
