#include "ctl/policy/PolicyCheck.h"

#include <filesystem>
#include <functional>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/policy/PolicyKeys.h"
#include "support/PolicyCases.h"
#include "support/TempRoot.h"

namespace Ctl {

static void PrintTo(const PolicyProblem& problem, std::ostream* stream) {
    *stream << NameOf(problem.severity) << " " << problem.pointer << ": " << problem.reason;
}

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using TestSupport::GoodDirectoryPolicy;
using TestSupport::GoodPolicy;
using TestSupport::MakeTexts;
using TestSupport::TaskWith;

auto Is(Severity severity, const std::string& pointer, const std::string& part) {
    return AllOf(Field("severity", &PolicyProblem::severity, severity),
                 Field("pointer", &PolicyProblem::pointer, pointer),
                 Field("reason", &PolicyProblem::reason, HasSubstr(part)));
}

auto Error(const std::string& pointer, const std::string& part) {
    return Is(Severity::ERROR, pointer, part);
}
auto Danger(const std::string& pointer, const std::string& part) {
    return Is(Severity::DANGER, pointer, part);
}
auto Warning(const std::string& pointer, const std::string& part) {
    return Is(Severity::WARNING, pointer, part);
}
auto Refusal(const std::string& pointer, const std::string& part) {
    return AllOf(Error(pointer, part), Field("refused", &PolicyProblem::refused, true));
}

std::vector<PolicyProblem> Check(const Json::Value& policy) {
    return CheckPolicy(SDK::JsonUtils::JsonToString(policy));
}

// A good policy whose setting of that name has another value.
std::vector<PolicyProblem> CheckWith(const char* setting, const Json::Value& value) {
    Json::Value policy = GoodPolicy();
    policy["content"][setting] = value;
    return Check(policy);
}

std::vector<PolicyProblem> CheckWithout(const char* member) {
    Json::Value policy = GoodPolicy();
    policy.removeMember(member);
    return Check(policy);
}

std::vector<PolicyProblem> CheckTaskWith(const char* task, const std::string& condition) {
    return CheckWith(task, TaskWith(condition));
}

auto IsAt(std::size_t line, std::size_t column, const std::string& part) {
    return ElementsAre(AllOf(Refusal("", part), Field("line", &PolicyProblem::line, line),
                             Field("column", &PolicyProblem::column, column)));
}

TEST(PolicyCheck, AGoodPolicyHasNoProblem) {
    const TestSupport::TempDir directory;
    EXPECT_THAT(Check(GoodPolicy()), IsEmpty());
    EXPECT_THAT(Check(GoodDirectoryPolicy(directory.Path())), IsEmpty());
}

TEST(PolicyCheck, WhatIsNoJsonIsRefusedWithItsPlace) {
    EXPECT_THAT(CheckPolicy("{\"a\": 1,\n \"b\" 2}"), IsAt(2, 6, "Missing ':'"));
    EXPECT_THAT(CheckPolicy("{\n  \"a\": 1,\n  \"a\": 2\n}"), IsAt(3, 3, "Duplicate key: 'a'"));
    EXPECT_THAT(CheckPolicy("{\"a\": \"x\ty\"}"), IsAt(1, 9, "control character"));
    EXPECT_THAT(CheckPolicy("{\"a\":\n\n 07}"), IsAt(3, 3, "number"));
    EXPECT_THAT(CheckPolicy("{\n\"a"), IsAt(2, 3, "closing quote"));
    EXPECT_THAT(CheckPolicy(std::string("{}\n\0", 4)), IsAt(2, 1, "NUL"));
    EXPECT_THAT(CheckPolicy(""), IsAt(1, 1, "value, object or array expected"));
    EXPECT_THAT(CheckPolicy("{} x"), IsAt(1, 4, "Extra non-whitespace"));
}

TEST(PolicyCheck, WhatIsNestedTooDeeplyIsRefusedAndDoesNotThrow) {
    EXPECT_THAT(CheckPolicy(std::string(100000, '[')), IsAt(0, 0, "too deep"));
}

TEST(PolicyCheck, ADocumentThatIsNoObjectIsRefused) {
    EXPECT_THAT(CheckPolicy("[]"), ElementsAre(Refusal("", "array")));
    EXPECT_THAT(CheckPolicy("5"), ElementsAre(Refusal("", "no JSON")));
}

TEST(PolicyCheck, AnotherModuleOrFeatureIsRefused) {
    for (const char* name : {"module_name", "feature_name"}) {
        const std::string pointer = std::string("/") + name;
        EXPECT_THAT(CheckWithout(name), ElementsAre(Refusal(pointer, "missing")));
        Json::Value policy = GoodPolicy();
        policy[name] = "Whitelist";
        EXPECT_THAT(Check(policy), ElementsAre(Refusal(pointer, "\"Whitelist\"")));
        policy[name] = 5;
        EXPECT_THAT(Check(policy), ElementsAre(Refusal(pointer, "is 5")));
    }
}

TEST(PolicyCheck, WithoutAContentObjectItIsRefused) {
    EXPECT_THAT(CheckWithout("content"), ElementsAre(Refusal("/content", "missing")));
    Json::Value policy = GoodPolicy();
    policy["content"] = Json::Value(Json::arrayValue);
    EXPECT_THAT(Check(policy), ElementsAre(Refusal("/content", "no object")));
}

TEST(PolicyCheck, AFeatureThatIsNotSwitchedOnIsADangerUnlessItSaysSo) {
    EXPECT_THAT(CheckWithout("enabled"), ElementsAre(Danger("/enabled", "missing: the feature is off")));
    Json::Value policy = GoodPolicy();
    policy["enabled"] = "Enabled";
    EXPECT_THAT(Check(policy), ElementsAre(Danger("/enabled", "misspelled")));
    policy["enabled"] = "on";
    EXPECT_THAT(Check(policy), ElementsAre(AllOf(Danger("/enabled", "off"),
                                                 Field(&PolicyProblem::reason, Not(HasSubstr("misspelled"))))));
    policy["enabled"] = true;
    EXPECT_THAT(Check(policy), ElementsAre(Danger("/enabled", "no string")));
    policy["enabled"] = "disabled";
    EXPECT_THAT(Check(policy), ElementsAre(Warning("/enabled", "off")));
}

TEST(PolicyCheck, WithoutAVersionTagThereIsAWarning) {
    EXPECT_THAT(CheckWithout("feature_hash"), ElementsAre(Warning("/feature_hash", "missing")));
    Json::Value policy = GoodPolicy();
    policy["feature_hash"] = "";
    EXPECT_THAT(Check(policy), ElementsAre(Warning("/feature_hash", "empty")));
    policy["feature_hash"] = 7;
    EXPECT_THAT(Check(policy), ElementsAre(Danger("/feature_hash", "no string")));
}

TEST(PolicyCheck, AValueThatIsSilentlyReplacedIsADanger) {
    EXPECT_THAT(CheckWith("learning_days", 45), ElementsAre(Danger("/content/learning_days", "counts as 7")));
    EXPECT_THAT(CheckWith("learning_days", 0), ElementsAre(Danger("/content/learning_days", "1 to 30")));
    EXPECT_THAT(CheckWith("learning_days", "7"), ElementsAre(Danger("/content/learning_days", "no integer")));
    EXPECT_THAT(CheckWith("learning_days", 1.5), ElementsAre(Danger("/content/learning_days", "counts as 7")));
    EXPECT_THAT(CheckWith("action_block", "true"), ElementsAre(Danger("/content/action_block", "counts as false")));
    EXPECT_THAT(CheckWith("dir_mod", 1), ElementsAre(Danger("/content/dir_mod", "counts as false")));
    EXPECT_THAT(CheckWith("auto_detect", "no"), ElementsAre(Danger("/content/auto_detect", "counts as true")));
    EXPECT_THAT(CheckWith("scan_period_seconds", Json::Value(1e12)),
                ElementsAre(Danger("/content/scan_period_seconds", "counts as 3600")));
    EXPECT_THAT(CheckWith("learning_days", 30), IsEmpty());
    EXPECT_THAT(CheckWith("learning_days", 1), IsEmpty());
}

TEST(PolicyCheck, AMissingLearningPeriodIsAWarning) {
    Json::Value policy = GoodPolicy();
    policy["content"].removeMember("learning_days");
    EXPECT_THAT(Check(policy), ElementsAre(Warning("/content/learning_days", "counts as 7")));
}

TEST(PolicyCheck, BlockingIsADangerThatSaysHowFarItGoes) {
    EXPECT_THAT(CheckWith("action_block", true), ElementsAre(Danger("/content/action_block", "auto_detect")));
    Json::Value policy = GoodPolicy();
    policy["content"]["action_block"] = true;
    policy["content"]["auto_detect"] = false;
    EXPECT_THAT(Check(policy), ElementsAre(AllOf(Danger("/content/action_block", "killed"),
                                                 Field(&PolicyProblem::reason, Not(HasSubstr("auto_detect"))))));
    const TestSupport::TempDir directory;
    policy = GoodDirectoryPolicy(directory.Path());
    policy["content"]["action_block"] = true;
    EXPECT_THAT(Check(policy), ElementsAre(Danger("/content/action_block", "however few")));
}

TEST(PolicyCheck, AnUnknownKeyIsAWarningWithWhatMayBeMeant) {
    Json::Value policy = GoodPolicy();
    policy["Enabled"] = "enabled";
    policy["action_block"] = true;
    policy["content"]["learning_day"] = 5;
    policy["content"]["a/b~c"] = 5;
    policy["content"]["full_proc_task"]["task_condition"]["perod"] = 5;
    policy["content"]["full_proc_task"]["taskcondition"] = 5;
    EXPECT_THAT(Check(policy),
                testing::UnorderedElementsAre(Warning("/Enabled", "did you mean \"enabled\"?"),
                                              Warning("/action_block", "belongs to /content/action_block"),
                                              Warning("/content/learning_day", "did you mean \"learning_days\"?"),
                                              Warning("/content/a~1b~0c", "no key of a policy: it has no effect"),
                                              Warning("/content/full_proc_task/task_condition/perod", "\"period\""),
                                              Warning("/content/full_proc_task/taskcondition", "\"task_condition\"")));
}

TEST(PolicyCheck, AKeyThatTheModeIgnoresIsAWarningAndItsValueIsNotLookedAt) {
    for (const char* key : {"dirs", "exts", "mount_mod", "specified_file_audit_task"}) {
        EXPECT_THAT(CheckWith(key, 5), ElementsAre(Warning(std::string("/content/") + key, "global mode"))) << key;
    }
    const TestSupport::TempDir directory;
    for (const char* key : {"auto_detect", "scan_period_seconds", "full_proc_task"}) {
        Json::Value policy = GoodDirectoryPolicy(directory.Path());
        policy["content"][key] = "x";
        EXPECT_THAT(Check(policy), ElementsAre(Warning(std::string("/content/") + key, "directory mode"))) << key;
    }
}

// ---- tasks

TEST(PolicyCheck, ATaskWithoutAUsableConditionIsAnError) {
    const TestSupport::TempDir directory;
    for (const char* task : {"full_proc_task", "process_manager_task", "learn_status_check_task"}) {
        const std::string pointer = std::string("/content/") + task;
        EXPECT_THAT(CheckWith(task, Json::Value(Json::objectValue)), Contains(Error(pointer, "no \"task_condition\"")));
        EXPECT_THAT(CheckWith(task, Json::Value(Json::arrayValue)), Contains(Error(pointer, "no \"task_condition\"")));
        EXPECT_THAT(CheckTaskWith(task, "5"), Contains(Error(pointer + "/task_condition", "5 is no object")));
        for (const char* period : {"0", "-1", "\"60\"", "0.5", "null", "4294967296"}) {
            EXPECT_THAT(CheckTaskWith(task, std::string("{\"period\": ") + period + "}"),
                        Contains(Error(pointer + "/task_condition/period", "no integer of 1 or more")))
                << period;
        }
    }
    Json::Value policy = GoodDirectoryPolicy(directory.Path());
    policy["content"]["specified_file_audit_task"] = TaskWith(R"({"period": 0})");
    EXPECT_THAT(Check(policy), ElementsAre(Error("/content/specified_file_audit_task/task_condition/period", "0 is")));
}

TEST(PolicyCheck, ATaskThatIsNoObjectIsAcceptedWhichIsADanger) {
    for (const Json::Value& value : {Json::Value("{"), Json::Value(60), Json::Value(), Json::Value(true)}) {
        EXPECT_THAT(CheckWith("process_manager_task", value),
                    ElementsAre(Danger("/content/process_manager_task", "yet accepted")));
    }
}

TEST(PolicyCheck, WhatIsLearnedIsKeptOnlyWithAPeriod) {
    Json::Value policy = GoodPolicy();
    policy["content"].removeMember("full_proc_task");
    EXPECT_THAT(Check(policy), ElementsAre(Danger("/content/full_proc_task", "not kept")));
    EXPECT_THAT(CheckTaskWith("full_proc_task", "{}"), ElementsAre(Danger("/content/full_proc_task", "not kept")));
    EXPECT_THAT(CheckTaskWith("full_proc_task", R"({"period": 1})"), IsEmpty());
    EXPECT_THAT(CheckTaskWith("full_proc_task", R"({"period": 60.0})"), IsEmpty());
}

TEST(PolicyCheck, APeriodDelaysATaskWithoutEnd) {
    for (const char* task : {"process_manager_task", "learn_status_check_task"}) {
        EXPECT_THAT(CheckTaskWith(task, R"({"period": 30})"),
                    ElementsAre(Danger(std::string("/content/") + task + "/task_condition/period", "30 seconds")));
    }
    const TestSupport::TempDir directory;
    Json::Value policy = GoodDirectoryPolicy(directory.Path());
    policy["content"]["specified_file_audit_task"] = TaskWith(R"({"period": 1})");
    EXPECT_THAT(Check(policy),
                ElementsAre(Danger("/content/specified_file_audit_task/task_condition/period", "1 second ")));
}

TEST(PolicyCheck, FullReportsComeInWholePeriods) {
    EXPECT_THAT(CheckWith("scan_period_seconds", 59),
                ElementsAre(Danger("/content/scan_period_seconds", "never reported")));
    EXPECT_THAT(CheckWith("scan_period_seconds", -60),
                ElementsAre(Danger("/content/scan_period_seconds", "never reported")));
    EXPECT_THAT(CheckWith("scan_period_seconds", 100),
                ElementsAre(Warning("/content/scan_period_seconds", "counts as 60")));
    EXPECT_THAT(CheckWith("scan_period_seconds", 60), IsEmpty());
    EXPECT_THAT(CheckTaskWith("full_proc_task", R"({"period": 7200})"),
                ElementsAre(Danger("/content/scan_period_seconds", "3600 is less")));
}

// ---- directories and extensions

class FileRulesCheck : public testing::Test {
protected:
    std::vector<PolicyProblem> CheckSetting(const char* key, const Json::Value& value) {
        policy["content"][key] = value;
        return Check(policy);
    }

    std::vector<PolicyProblem> CheckDir(const std::string& path) {
        policy["content"]["dirs"].append(path);
        return Check(policy);
    }

    std::vector<PolicyProblem> CheckExt(const std::string& extension) {
        policy["content"]["exts"].append(extension);
        return Check(policy);
    }

    std::vector<PolicyProblem> CheckMount(const std::string& path) {
        policy["content"]["mount_mod"] = true;
        policy["content"]["dirs"][0] = path;
        return Check(policy);
    }

    TestSupport::TempDir directory;
    Json::Value policy = GoodDirectoryPolicy(directory.Path());
};

TEST_F(FileRulesCheck, MissingOrOfAnotherTypeIsAnError) {
    for (const char* key : {"dirs", "exts"}) {
        const std::string pointer = std::string("/content/") + key;
        policy = GoodDirectoryPolicy(directory.Path());
        policy["content"].removeMember(key);
        EXPECT_THAT(Check(policy), ElementsAre(Error(pointer, "is missing")));
        EXPECT_THAT(CheckSetting(key, "x"), ElementsAre(Error(pointer, "no array")));
        Json::Value mixed = MakeTexts("/", 1);
        mixed.append(5);
        EXPECT_THAT(CheckSetting(key, mixed), ElementsAre(Error(pointer + "/1", "no string")));
    }
}

TEST_F(FileRulesCheck, MoreThanAHundredIsAnError) {
    EXPECT_THAT(CheckSetting("exts", MakeTexts("e", 101)), ElementsAre(Error("/content/exts", "101")));
    EXPECT_THAT(CheckSetting("exts", MakeTexts("e", 100)), IsEmpty());
    Json::Value dirs(Json::arrayValue);
    for (int i = 0; i < 100; ++i) {
        std::filesystem::create_directory(directory / std::to_string(i));
        dirs.append(directory / std::to_string(i));
    }
    EXPECT_THAT(CheckSetting("dirs", dirs), IsEmpty());
    dirs.append(directory.Path());
    EXPECT_THAT(CheckSetting("dirs", dirs), ElementsAre(Error("/content/dirs", "101 directories")));
    std::filesystem::remove(directory / "7");
    EXPECT_THAT(CheckSetting("dirs", dirs),
                ElementsAre(Danger("/content/dirs", "101 entries"), Warning("/content/dirs/7", "left out")));
}

TEST_F(FileRulesCheck, ADirectoryThatIsLeftOutIsNamed) {
    EXPECT_THAT(CheckDir("/nowhere/at all"), ElementsAre(Warning("/content/dirs/1", "no directory on this host")));
    EXPECT_THAT(CheckSetting("dirs", MakeTexts(directory.Write("file", ""), 0)),
                ElementsAre(Danger("/content/dirs", "nothing is watched")));
    EXPECT_THAT(CheckDir(directory / "file"), Contains(Warning("/content/dirs/0", "no directory on this host")));
    EXPECT_THAT(CheckDir(""), Contains(Danger("/content/dirs/1", "0 bytes")));
    EXPECT_THAT(CheckDir(std::string(4096, '/')), Contains(Danger("/content/dirs/2", "4096 bytes")));
}

TEST_F(FileRulesCheck, WhereNoDirectoryIsThereNothingIsWatched) {
    EXPECT_THAT(CheckSetting("dirs", MakeTexts("/nowhere/", 2)),
                ElementsAre(Danger("/content/dirs", "nothing is watched"), Warning("/content/dirs/0", "left out"),
                            Warning("/content/dirs/1", "left out")));
}

TEST_F(FileRulesCheck, ADirectoryThatIsListedTwiceIsAWarning) {
    EXPECT_THAT(CheckDir(directory.Path()), ElementsAre(Warning("/content/dirs/1", "already")));
}

TEST_F(FileRulesCheck, ARelativeDirectoryIsADanger) {
    EXPECT_THAT(CheckDir("."), ElementsAre(Danger("/content/dirs/1", "relative")));
}

TEST_F(FileRulesCheck, TheRootDirectoryIsADanger) {
    EXPECT_THAT(CheckDir("/"), ElementsAre(Danger("/content/dirs/1", "8,192")));
    EXPECT_THAT(CheckMount("/"), Contains(Danger("/content/dirs/0", "mount_mod over \"/\"")));
}

TEST_F(FileRulesCheck, AMountIsMatchedByPrefixAndByRealPathsOnly) {
    EXPECT_THAT(CheckMount(directory.Path()), Contains(Warning("/content/dirs/0", "end it with \"/\"")));
    EXPECT_THAT(CheckMount(directory.Path() + "/"), Not(Contains(Warning("/content/dirs/0", "end it with"))));
    std::filesystem::create_directory_symlink(directory.Path(), directory / "link");
    EXPECT_THAT(CheckMount(directory / "link/"), Contains(Danger("/content/dirs/0", "matches nothing")));
    EXPECT_THAT(CheckMount(directory / "./"), Contains(Danger("/content/dirs/0", "matches nothing")));
}

TEST_F(FileRulesCheck, WithMountModTheRootFileSystemCosts) {
    EXPECT_THAT(CheckMount("/etc/"), ElementsAre(Warning("/content/dirs/0", "root file system")));
    EXPECT_THAT(CheckMount("/proc/"), IsEmpty());
}

TEST_F(FileRulesCheck, AnExtensionThatIsLeftOutIsADanger) {
    EXPECT_THAT(CheckExt(".pem"), ElementsAre(Danger("/content/exts/1", "with its dot")));
    EXPECT_THAT(CheckExt("a/b"), Contains(Danger("/content/exts/2", "character")));
    EXPECT_THAT(CheckExt("ö"), Contains(Danger("/content/exts/3", "character")));
    EXPECT_THAT(CheckExt("a\x1f"), Contains(Danger("/content/exts/4", "character")));
    EXPECT_THAT(CheckExt(""), Contains(Danger("/content/exts/5", "0 bytes")));
    EXPECT_THAT(CheckExt(std::string(20, 'x')), Contains(Danger("/content/exts/6", "20 bytes")));
    EXPECT_THAT(CheckExt("tar.gz"), Contains(Danger("/content/exts/7", "character")));
}

TEST_F(FileRulesCheck, ExtensionsAtTheEdgeOfTheRulesAreFine) {
    CheckExt(std::string(19, 'x'));
    CheckExt("7 z~");
    EXPECT_THAT(Check(policy), IsEmpty());
    EXPECT_THAT(CheckExt("key"), ElementsAre(Warning("/content/exts/3", "already")));
    EXPECT_THAT(CheckSetting("exts", Json::Value(Json::arrayValue)), IsEmpty());
}

TEST_F(FileRulesCheck, WhenEveryExtensionIsLeftOutAllFilesCount) {
    EXPECT_THAT(CheckSetting("exts", MakeTexts(".e", 1)),
                ElementsAre(Danger("/content/exts/0", "left out"), Danger("/content/exts", "all files")));
}

// ---- the table

TEST(PolicyKeys, HaveAMeaningAndStandBelowAnObject) {
    for (const PolicyKey& key : GetPolicyKeys()) {
        EXPECT_EQ(FindPolicyKey(key.pointer), &key) << key.pointer << " is there twice";
        EXPECT_TRUE(key.meaning.ends_with(".")) << key.pointer;
        const std::string parent = key.pointer.substr(0, key.pointer.rfind('/'));
        if (!parent.empty()) {
            ASSERT_NE(FindPolicyKey(parent), nullptr) << key.pointer;
            EXPECT_EQ(FindPolicyKey(parent)->type, ValueType::OBJECT) << key.pointer;
        }
    }
}

} // namespace
} // namespace Ctl
