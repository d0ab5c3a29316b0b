#include "ctl/policy/PolicyText.h"

#include <gtest/gtest.h>

#include "ctl/policy/PolicyCheck.h"
#include "ctl/policy/PolicyTemplate.h"
#include "sdk/JsonUtils.h"

namespace {

using Ctl::PolicyMode;
using Ctl::StripComments;

TEST(PolicyText, WithoutCommentsItIsUnchanged) {
    for (const char* text :
         {"", "\n", R"({"a": "b"})", "{\"a\":\r\n [1, 2]\t}", R"({"url": "http://host//x", "q": "\"//"})",
          R"({"a\\": "\\"})", "{\"a/b\": 1 / 2}", "\"no end //"}) {
        EXPECT_EQ(StripComments(text), text);
    }
}

TEST(PolicyText, ACommentGoesUpToTheEndOfItsLine) {
    EXPECT_EQ(StripComments("// first\n{ // \"second\"\n\"a\": \"\\\\\" // third\n}//"), "\n{ \n\"a\": \"\\\\\" \n}");
    EXPECT_EQ(StripComments("{} // windows\r\n{}"), "{} \n{}");
    EXPECT_EQ(StripComments("{\"url\": \"file:///x\" // \"file:///y\"\n}"), "{\"url\": \"file:///x\" \n}");
}

// Otherwise an unclosed string would hide all comments that follow.
TEST(PolicyText, AStringEndsWithItsLine) {
    EXPECT_EQ(StripComments("{\"a: 1,\n// comment\n}"), "{\"a: 1,\n\n}");
}

TEST(PolicyText, AfterAnEscapedQuoteTheStringGoesOn) {
    EXPECT_EQ(StripComments(R"(["\"//", 1] // gone)"), R"(["\"//", 1] )");
    EXPECT_EQ(StripComments("[\"\\"), "[\"\\");
}

TEST(PolicyTemplate, HasEveryKeyOfItsModeAndNoProblem) {
    for (const PolicyMode mode : {PolicyMode::GLOBAL, PolicyMode::DIRECTORY}) {
        const std::string text = StripComments(Ctl::MakePolicyTemplate(mode));
        Json::Value policy;
        ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text, policy), 0) << text;
        for (const Ctl::PolicyKey* key : Ctl::GetKeysOf("/content")) {
            const bool read = key->mode == PolicyMode::ANY || key->mode == mode;
            EXPECT_EQ(policy["content"].isMember(Ctl::GetLeaf(key->pointer)), read) << key->pointer;
        }
        EXPECT_EQ(policy["content"]["dir_mod"].asBool(), mode == PolicyMode::DIRECTORY);
        EXPECT_FALSE(policy["content"]["action_block"].asBool());
        for (const Ctl::PolicyProblem& problem : Ctl::CheckPolicy(text)) {
            // A host may have no such directory.
            EXPECT_TRUE(problem.pointer.starts_with("/content/dirs")) << problem.pointer << ": " << problem.reason;
        }
    }
}

TEST(PolicyTemplate, ItsLinesFitAScreen) {
    std::istringstream lines(Ctl::MakePolicyTemplate(PolicyMode::DIRECTORY));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 100U) << line;
    }
}

TEST(PolicyTemplate, WrappingKeepsEveryWord) {
    EXPECT_EQ(Ctl::WrapText("a bb ccc dddd", 4), (std::vector<std::string>{"a bb", "ccc", "dddd"}));
    EXPECT_EQ(Ctl::WrapText("longer than that", 3), (std::vector<std::string>{"longer", "than", "that"}));
    EXPECT_EQ(Ctl::WrapText("", 3), std::vector<std::string>{""});
}

} // namespace
