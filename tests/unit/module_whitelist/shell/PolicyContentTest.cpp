#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include "ConfigManager.h"
#include "sdk/JsonUtils.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using namespace Engine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int DEFAULT_PERIOD_MINUTES = 10080;
const std::string DEFAULT_DAYS = "set learning days to default 7 days";
const std::string REJECTED_RULES = "POLICY error too many dir or ext config";

class PolicyContent : public ::testing::Test {
protected:
    static std::string Document(const std::string& members) { return R"({"content": {)" + members + "}}"; }
    bool Apply(const std::string& members) { return config.ParsePolicy(Document(members).c_str()); }

    // Directory mode with these entries; `more` begins with a comma or is empty.
    bool ApplyRules(const std::vector<std::string>& dirs, const std::vector<std::string>& exts,
                    const std::string& more = "") {
        return Apply(R"("learning_days": 1, "dir_mod": true, "dirs": )" + ToArray(dirs) + R"(, "exts": )" +
                     ToArray(exts) + more);
    }

    static std::string ToArray(const std::vector<std::string>& texts) {
        Json::Value array(Json::arrayValue);
        for (const std::string& text : texts) {
            array.append(text);
        }
        return SDK::JsonUtils::JsonToString(array);
    }

    static std::vector<std::string> Numbered(const std::string& prefix, int count) {
        std::vector<std::string> texts(static_cast<std::size_t>(count));
        std::generate(texts.begin(), texts.end(), [&, i = 0]() mutable { return prefix + std::to_string(i++); });
        return texts;
    }

    std::vector<std::string> MakeDirs(int count) const {
        std::vector<std::string> dirs = Numbered(root / "d", count);
        for (const std::string& dir : dirs) {
            std::filesystem::create_directory(dir);
        }
        return dirs;
    }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    ConfigManager& config = *ConfigManager::Instance();
};

// ---- The document ----------------------------------------------------------------------------------

TEST_F(PolicyContent, TextThatIsNotJsonIsRejectedAndQuotedWhole) {
    EXPECT_FALSE(config.ParsePolicy("{\"content\": {} no json"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Parse Policy Failed. [{\"content\": {} no json]"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PolicyContent, AnEmptyOrNullTextIsNotJson) {
    EXPECT_FALSE(config.ParsePolicy(""));
    EXPECT_FALSE(config.ParsePolicy(nullptr));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Parse Policy Failed. []"), 2);
}

TEST_F(PolicyContent, ADocumentWithoutContentIsRejected) {
    EXPECT_FALSE(config.ParsePolicy(R"({"learning_days": 3})"));
    EXPECT_FALSE(config.ParsePolicy("[]"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "no content in policy"), 2);
    EXPECT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(config.GetLearnPeriod(), 0);
}

TEST_F(PolicyContent, AContentThatIsNoObjectCountsAsNone) {
    for (const char* text : {R"({"content": []})", R"({"content": "text"})", R"({"content": null})"}) {
        EXPECT_FALSE(config.ParsePolicy(text)) << text;
    }
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "no content in policy"), 3);
}

TEST_F(PolicyContent, ParsingTheContentAloneSettlesNoMode) {
    ASSERT_TRUE(config.Init());
    root.Write("conf/modwhitelist.ini", "[Driver]\nLearnTime=1440\nLearnMod=3\n");
    ASSERT_TRUE(config.Init());
    EXPECT_TRUE(config.ParsePolicyContent(R"({"content": {"learning_days": 1}})"));
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 1}})"));
    EXPECT_EQ(config.GetMod(), MOD_DETECT);
}

// ---- Learning days ---------------------------------------------------------------------------------

struct DaysCase {
    const char* members;
    int minutes;
    bool replaced;
};

class PolicyLearningDays : public PolicyContent, public ::testing::WithParamInterface<DaysCase> {};

TEST_P(PolicyLearningDays, GiveThePeriod) {
    EXPECT_TRUE(Apply(GetParam().members));
    EXPECT_EQ(config.GetLearnPeriod(), GetParam().minutes);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, DEFAULT_DAYS), GetParam().replaced ? 1 : 0);
    EXPECT_EQ(log.Records().size(), GetParam().replaced ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Values, PolicyLearningDays,
                         ::testing::Values(DaysCase{R"("learning_days": 1)", 1440, false},
                                           DaysCase{R"("learning_days": 7)", 10080, false},
                                           DaysCase{R"("learning_days": 30)", 43200, false},
                                           DaysCase{R"("learning_days": 0)", DEFAULT_PERIOD_MINUTES, true},
                                           DaysCase{R"("learning_days": 31)", DEFAULT_PERIOD_MINUTES, true},
                                           DaysCase{R"("learning_days": -1)", DEFAULT_PERIOD_MINUTES, true},
                                           DaysCase{R"("learning_days": "3")", DEFAULT_PERIOD_MINUTES, true},
                                           DaysCase{R"("learning_days": 99999999999)", DEFAULT_PERIOD_MINUTES, true},
                                           DaysCase{"", DEFAULT_PERIOD_MINUTES, true}));

// ---- Global mode -----------------------------------------------------------------------------------

TEST_F(PolicyContent, GlobalModeHasItsDefaults) {
    EXPECT_TRUE(Apply(R"("dir_mod": false)"));
    EXPECT_FALSE(config.GetDirMod());
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_EQ(config.GetScanPeriodSeconds(), 3600);
    EXPECT_TRUE(config.GetAutoDetect());
    EXPECT_EQ(config.GetActionBlock(), 0);
}

TEST_F(PolicyContent, GlobalModeTakesWhatItIsGiven) {
    EXPECT_TRUE(Apply(R"("learning_days": 2, "action_block": true, "scan_period_seconds": 60, "auto_detect": false)"));
    EXPECT_EQ(config.GetLearnPeriod(), 2880);
    EXPECT_EQ(config.GetActionBlock(), 1);
    EXPECT_EQ(config.GetScanPeriodSeconds(), 60);
    EXPECT_FALSE(config.GetAutoDetect());
}

TEST_F(PolicyContent, TheScanPeriodHasNoBounds) {
    for (const int seconds : {0, -5, 2147483647}) {
        EXPECT_TRUE(Apply(R"("scan_period_seconds": )" + std::to_string(seconds)));
        EXPECT_EQ(config.GetScanPeriodSeconds(), seconds);
    }
}

TEST_F(PolicyContent, MembersOfTheWrongTypeCountAsMissing) {
    EXPECT_TRUE(Apply(R"("learning_days": 1, "action_block": 1, "dir_mod": "true", "scan_period_seconds": "60",
                         "auto_detect": 0)"));
    EXPECT_EQ(config.GetActionBlock(), 0);
    EXPECT_FALSE(config.GetDirMod());
    EXPECT_EQ(config.GetScanPeriodSeconds(), 3600);
    EXPECT_TRUE(config.GetAutoDetect());
}

TEST_F(PolicyContent, GlobalModeReadsNoDirectoryKeys) {
    EXPECT_TRUE(Apply(R"("learning_days": 1, "mount_mod": true, "dirs": ["/tmp"], "exts": ["sh"])"));
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_THAT(config.GetDirs(), IsEmpty());
    EXPECT_THAT(config.GetExts(), IsEmpty());
    EXPECT_THAT(config.GetExpandedDirs(), IsEmpty());
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(PolicyContent, GlobalModeKeepsTheRulesOfAnEarlierPolicy) {
    const std::vector<std::string> dirs = MakeDirs(1);
    EXPECT_TRUE(ApplyRules(dirs, {"sh"}, R"(, "mount_mod": true)"));
    EXPECT_TRUE(Apply(R"("dir_mod": false)"));
    EXPECT_FALSE(config.GetDirMod());
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_EQ(config.GetDirs(), dirs);
    EXPECT_THAT(config.GetExts(), ElementsAre("sh"));
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(dirs[0]));
}

// ---- Directory mode --------------------------------------------------------------------------------

TEST_F(PolicyContent, DirectoryModeTakesItsRules) {
    const std::vector<std::string> dirs = MakeDirs(2);
    EXPECT_TRUE(ApplyRules(dirs, {"sh", "py", "sh"}, R"(, "action_block": true)"));
    EXPECT_TRUE(config.GetDirMod());
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_EQ(config.GetActionBlock(), 1);
    EXPECT_EQ(config.GetDirs(), dirs);
    EXPECT_THAT(config.GetExts(), ElementsAre("py", "sh"));
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(dirs[0], dirs[1]));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [2] exts size [2]"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PolicyContent, MountModeIsTakenInDirectoryMode) {
    EXPECT_TRUE(ApplyRules({}, {}, R"(, "mount_mod": true)"));
    EXPECT_TRUE(config.GetMountMod());
    EXPECT_TRUE(ApplyRules({}, {}, R"(, "mount_mod": false)"));
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_TRUE(ApplyRules({}, {}, R"(, "mount_mod": true)"));
    EXPECT_TRUE(ApplyRules({}, {}));
    EXPECT_FALSE(config.GetMountMod());
}

TEST_F(PolicyContent, EmptyRulesAreAccepted) {
    EXPECT_TRUE(ApplyRules({}, {}));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [0] exts size [0]"), 1);
}

TEST_F(PolicyContent, DirectoryModeKeepsTheScanPeriodAndNeverDetectsByItself) {
    EXPECT_TRUE(Apply(R"("learning_days": 1, "scan_period_seconds": 120, "auto_detect": true)"));
    EXPECT_TRUE(ApplyRules({}, {}, R"(, "scan_period_seconds": 7, "auto_detect": true)"));
    EXPECT_EQ(config.GetScanPeriodSeconds(), 120);
    EXPECT_FALSE(config.GetAutoDetect());
}

TEST_F(PolicyContent, AHundredDirectoriesAndAHundredExtensionsAreAccepted) {
    EXPECT_TRUE(ApplyRules(MakeDirs(100), Numbered("e", 100)));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [100] exts size [100]"), 1);
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 0);
    EXPECT_EQ(config.GetExpandedDirs().size(), 100U);
}

TEST_F(PolicyContent, AHundredAndOneDirectoriesAreRejected) {
    EXPECT_FALSE(ApplyRules(MakeDirs(101), {"sh"}));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [101] exts size [1]"), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, REJECTED_RULES), 1);
    EXPECT_THAT(config.GetExpandedDirs(), IsEmpty());
}

TEST_F(PolicyContent, AHundredAndOneExtensionsAreRejected) {
    EXPECT_FALSE(ApplyRules({}, Numbered("e", 101)));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [0] exts size [101]"), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, REJECTED_RULES), 1);
}

TEST_F(PolicyContent, OnlyEntriesThatAreHeldCountTowardTheLimit) {
    std::vector<std::string> dirs = MakeDirs(100);
    dirs.push_back(root / "missing");
    std::vector<std::string> exts = Numbered("e", 100);
    exts.emplace_back("e0");
    exts.emplace_back(".txt");
    EXPECT_TRUE(ApplyRules(dirs, exts));
    EXPECT_EQ(config.GetDirs().size(), 100U);
    EXPECT_EQ(config.GetExts().size(), 100U);
}

TEST_F(PolicyContent, ADirectoryNamedTwiceCountsTwice) {
    std::vector<std::string> dirs = MakeDirs(100);
    dirs.push_back(dirs[0]);
    EXPECT_FALSE(ApplyRules(dirs, {}));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, REJECTED_RULES), 1);
}

struct MalformedCase {
    const char* name;
    const char* members; // beside dir_mod; DIR stands for a directory
};

class PolicyMalformedRules : public PolicyContent, public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(PolicyMalformedRules, AreRejectedWithTheSameMessage) {
    EXPECT_FALSE(Apply(std::string(R"("learning_days": 1, "dir_mod": true)") + GetParam().members));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, REJECTED_RULES), 1);
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_DEBUG), 1);
    EXPECT_EQ(log.Records().size(), 2U);
}

INSTANTIATE_TEST_SUITE_P(Documents, PolicyMalformedRules,
                         ::testing::Values(MalformedCase{"NoDirs", R"(, "exts": [])"},
                                           MalformedCase{"NoExts", R"(, "dirs": [])"},
                                           MalformedCase{"DirsAreText", R"(, "dirs": "/tmp", "exts": [])"},
                                           MalformedCase{"ExtsAreAnObject", R"(, "dirs": [], "exts": {})"},
                                           MalformedCase{"ANumberAmongDirs", R"(, "dirs": [5], "exts": [])"},
                                           MalformedCase{"ANullAmongExts", R"(, "dirs": [], "exts": ["sh", null])"}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_F(PolicyContent, ExtensionsAreNotLookedAtWhenTheDirectoriesFail) {
    EXPECT_TRUE(ApplyRules({}, {"sh"}));
    log.Clear();
    EXPECT_FALSE(Apply(R"("learning_days": 1, "dir_mod": true, "dirs": 1, "exts": ["py"])"));
    EXPECT_THAT(config.GetExts(), ElementsAre("sh"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_DEBUG, "dirs size [0] exts size [1]"), 1);
}

// ---- What a rejected policy leaves -----------------------------------------------------------------

TEST_F(PolicyContent, ARejectedPolicyLeavesWhatWasAssignedBeforeTheFault) {
    EXPECT_TRUE(Apply(R"("learning_days": 1, "scan_period_seconds": 120)"));
    EXPECT_FALSE(Apply(R"("learning_days": 3, "action_block": true, "dir_mod": true, "mount_mod": true)"));
    EXPECT_EQ(config.GetLearnPeriod(), 4320);
    EXPECT_EQ(config.GetActionBlock(), 1);
    EXPECT_TRUE(config.GetDirMod());
    EXPECT_TRUE(config.GetMountMod());
    EXPECT_FALSE(config.GetAutoDetect());
    EXPECT_EQ(config.GetScanPeriodSeconds(), 120);
}

TEST_F(PolicyContent, ATextThatIsNotJsonClearsTheSwitchesAndKeepsTheRest) {
    const std::vector<std::string> dirs = MakeDirs(1);
    EXPECT_TRUE(Apply(R"("learning_days": 3, "scan_period_seconds": 120)"));
    EXPECT_TRUE(ApplyRules(dirs, {"sh"}, R"(, "action_block": true, "mount_mod": true)"));
    EXPECT_FALSE(config.ParsePolicy("no json"));
    EXPECT_FALSE(config.GetMountMod());
    EXPECT_FALSE(config.GetDirMod());
    EXPECT_EQ(config.GetActionBlock(), 0);
    EXPECT_FALSE(config.GetAutoDetect());
    EXPECT_EQ(config.GetScanPeriodSeconds(), 120);
    EXPECT_EQ(config.GetLearnPeriod(), 1440);
    EXPECT_EQ(config.GetDirs(), dirs);
    EXPECT_THAT(config.GetExts(), ElementsAre("sh"));
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(dirs[0]));
}

TEST_F(PolicyContent, AnExpansionThatFailsDoesNotRejectThePolicy) {
    const std::string deep = root / "deep";
    std::filesystem::create_directories(deep + "/1/2/3/4/5/6/7/8/9/10");
    EXPECT_TRUE(ApplyRules({deep}, {}));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "ExpendSubPath ERROR"));
}

} // namespace
