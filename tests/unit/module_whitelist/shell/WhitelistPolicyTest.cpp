#include "WhitelistPolicy.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using namespace Engine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FeaturePolicyModel : public ::testing::Test {
protected:
    bool Parse(const std::string& members) { return policy.Parse(R"({"content": {)" + members + "}}"); }

    std::vector<std::string> Children() const {
        std::vector<std::string> names;
        for (const auto& child : policy.GetChildren()) {
            names.push_back(child->GetName());
        }
        return names;
    }

    int PeriodOf(std::size_t child) const {
        return dynamic_cast<const Framework::TaskPolicy&>(*policy.GetChildren().at(child)).GetPeriodSeconds();
    }

    // The texts of the records of this level, in order.
    std::vector<std::string> Logged(Poco::Message::Priority priority) const {
        std::vector<std::string> texts;
        for (const auto& record : log.Records()) {
            if (record.priority == priority) {
                texts.push_back(record.text);
            }
        }
        return texts;
    }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    WhitelistPolicy policy{"whitelist_feature"};
};

// ---- The snapshot ----------------------------------------------------------------------------------

TEST_F(FeaturePolicyModel, BearsItsName) {
    EXPECT_EQ(policy.GetName(), "whitelist_feature");
    EXPECT_FALSE(policy.IsEnabled());
    EXPECT_EQ(policy.GetFeatureHash(), "");
    EXPECT_THAT(Children(), IsEmpty());
}

TEST_F(FeaturePolicyModel, CopiesTheSettingsOfGlobalMode) {
    EXPECT_TRUE(Parse(R"("learning_days": 2, "action_block": true, "scan_period_seconds": 60)"));
    EXPECT_EQ(policy.GetLearnPeriod(), 2880);
    EXPECT_EQ(policy.GetActionBlock(), 1);
    EXPECT_EQ(policy.GetScanPeriodSeconds(), 60);
    EXPECT_TRUE(policy.GetAutoDetect());
    EXPECT_FALSE(policy.GetDirMod());
    EXPECT_FALSE(policy.GetMountMod());
}

TEST_F(FeaturePolicyModel, CopiesTheSettingsOfDirectoryMode) {
    const std::string top = root / "top";
    std::filesystem::create_directories(top + "/below");
    EXPECT_TRUE(Parse(R"("learning_days": 1, "dir_mod": true, "mount_mod": true, "dirs": [")" + top +
                      R"("], "exts": ["sh", "py"])"));
    EXPECT_TRUE(policy.GetDirMod());
    EXPECT_TRUE(policy.GetMountMod());
    EXPECT_FALSE(policy.GetAutoDetect());
    EXPECT_THAT(policy.GetDirs(), ElementsAre(top));
    EXPECT_THAT(policy.GetExts(), ElementsAre("py", "sh"));
    EXPECT_THAT(policy.GetExpandedDirs(), ElementsAre(top, top + "/below"));
}

TEST_F(FeaturePolicyModel, StaysAsItWasParsed) {
    EXPECT_TRUE(Parse(R"("learning_days": 2)"));
    WhitelistPolicy later("whitelist_feature");
    EXPECT_TRUE(later.Parse(R"({"content": {"learning_days": 3}})"));
    EXPECT_EQ(policy.GetLearnPeriod(), 2880);
    EXPECT_EQ(later.GetLearnPeriod(), 4320);
}

TEST_F(FeaturePolicyModel, TakesTheSnapshotAlsoOfADocumentThatIsNotJson) {
    ASSERT_TRUE(ConfigManager::Instance()->ParsePolicy(R"({"content": {"learning_days": 4}})"));
    EXPECT_FALSE(policy.Parse("no json"));
    EXPECT_EQ(policy.GetLearnPeriod(), 5760);
    EXPECT_FALSE(policy.GetAutoDetect());
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR),
                ElementsAre("Parse Policy Failed. [no json]", "Parse Whitelist Policy Failed"));
}

TEST_F(FeaturePolicyModel, ADocumentWithoutContentGivesNoChildren) {
    ASSERT_TRUE(ConfigManager::Instance()->ParsePolicy(R"({"content": {"learning_days": 4}})"));
    EXPECT_FALSE(policy.Parse(R"({"process_manager_task": {"task_condition": {}}})"));
    EXPECT_EQ(policy.GetLearnPeriod(), 5760);
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR),
                ElementsAre("no content in policy", "Parse Whitelist Policy Failed"));
}

TEST_F(FeaturePolicyModel, SettingsThatAreRefusedStillGiveChildren) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "dir_mod": true, "process_manager_task": {"task_condition": {}})"));
    EXPECT_TRUE(policy.GetDirMod());
    EXPECT_THAT(Children(), ElementsAre("process_manager_task"));
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR),
                ElementsAre("POLICY error too many dir or ext config", "Parse Whitelist Policy Failed"));
}

TEST_F(FeaturePolicyModel, ChangesWithItsHash) {
    policy.SetFeatureHash("h1");
    policy.SetPolicyKey("10001");
    EXPECT_FALSE(policy.PolicyChanged("h1", "10001"));
    EXPECT_TRUE(policy.PolicyChanged("h2", "10001"));
    EXPECT_TRUE(policy.PolicyChanged("h1", "10002"));
}

// ---- The children ----------------------------------------------------------------------------------

TEST_F(FeaturePolicyModel, GlobalModeHasThreeChildrenInOrder) {
    EXPECT_TRUE(Parse(R"("learning_days": 1,
        "learn_status_check_task": {"task_condition": {}},
        "process_manager_task": {"task_condition": {"period": 5}},
        "full_proc_task": {"task_condition": {"period": 60}},
        "specified_file_audit_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), ElementsAre("full_proc_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_EQ(PeriodOf(0), 60);
    EXPECT_EQ(PeriodOf(1), 5);
    EXPECT_EQ(PeriodOf(2), 0);
    EXPECT_THAT(Logged(Poco::Message::PRIO_DEBUG),
                ElementsAre("Add full proc task", R"(process manager task policy is [{"task_condition":{"period":5}}])",
                            "Add process manager task", R"(learn status check task policy is [{"task_condition":{}}])",
                            "Add learn status check task"));
    EXPECT_EQ(log.Records().size(), 5U);
}

TEST_F(FeaturePolicyModel, DirectoryModeHasTheAuditsChildFirst) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "dir_mod": true, "dirs": [], "exts": [],
        "specified_file_audit_task": {"task_condition": {"period": 9}},
        "full_proc_task": {"task_condition": {}},
        "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(),
                ElementsAre("specified_file_audit_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_EQ(PeriodOf(0), 9);
    const std::vector<std::string> logged = Logged(Poco::Message::PRIO_DEBUG);
    ASSERT_EQ(logged.size(), 7U);
    EXPECT_EQ(logged[1], R"(specified file audit task policy is [{"task_condition":{"period":9}}])");
    EXPECT_EQ(logged[2], "Add specified file audit task");
}

TEST_F(FeaturePolicyModel, WithoutSubPoliciesThereAreNoChildren) {
    EXPECT_TRUE(Parse(R"("learning_days": 1)"));
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(FeaturePolicyModel, DirectoryModeWithTheOtherModesChildStillBuildsTheRest) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "dir_mod": true, "dirs": [], "exts": [],
        "full_proc_task": {"task_condition": {}},
        "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), ElementsAre("process_manager_task", "learn_status_check_task"));
}

TEST_F(FeaturePolicyModel, GlobalModeWithTheOtherModesChildStillBuildsTheRest) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "specified_file_audit_task": {"task_condition": {}},
        "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), ElementsAre("process_manager_task", "learn_status_check_task"));
}

TEST_F(FeaturePolicyModel, AnAuditSubPolicyWithoutConditionEndsItWithoutAWord) {
    EXPECT_FALSE(Parse(R"("learning_days": 1, "dir_mod": true, "dirs": [], "exts": [],
        "specified_file_audit_task": {}, "process_manager_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR), IsEmpty());
    EXPECT_EQ(Logged(Poco::Message::PRIO_DEBUG).back(), "specified file audit task policy is [{}]");
}

TEST_F(FeaturePolicyModel, AFullScanSubPolicyWithoutConditionEndsItWithAnError) {
    EXPECT_FALSE(Parse(R"("learning_days": 1, "full_proc_task": {"other": 1},
        "process_manager_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR), ElementsAre("Add full proc task failed"));
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(FeaturePolicyModel, AProcessManagerSubPolicyWithoutConditionEndsItBeforeTheNext) {
    EXPECT_FALSE(Parse(R"("learning_days": 1, "full_proc_task": {"task_condition": {}}, "process_manager_task": {},
        "learn_status_check_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), ElementsAre("full_proc_task"));
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR), IsEmpty());
    EXPECT_THAT(Logged(Poco::Message::PRIO_DEBUG),
                ElementsAre("Add full proc task", "process manager task policy is [{}]"));
}

TEST_F(FeaturePolicyModel, ALearnStatusSubPolicyWithoutConditionFailsAndLeavesTheOthers) {
    EXPECT_FALSE(Parse(R"("learning_days": 1, "process_manager_task": {"task_condition": {}},
        "learn_status_check_task": {"task_condition": {"period": 0}})"));
    EXPECT_THAT(Children(), ElementsAre("process_manager_task"));
    EXPECT_THAT(Logged(Poco::Message::PRIO_ERROR), IsEmpty());
}

TEST_F(FeaturePolicyModel, ASubPolicyThatIsNoDocumentIsAddedWithoutACondition) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "full_proc_task": "{", "process_manager_task": "{",
        "learn_status_check_task": 5)"));
    EXPECT_THAT(Children(), ElementsAre("full_proc_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_EQ(PeriodOf(0), 0);
}

TEST_F(FeaturePolicyModel, AnAuditSubPolicyThatIsNoDocumentIsAddedWithoutACondition) {
    EXPECT_TRUE(Parse(R"("learning_days": 1, "dir_mod": true, "dirs": [], "exts": [],
        "specified_file_audit_task": "{", "process_manager_task": {"task_condition": {}})"));
    EXPECT_THAT(Children(), ElementsAre("specified_file_audit_task", "process_manager_task"));
    EXPECT_EQ(PeriodOf(0), 0);
}

// ---- The task policies by themselves ---------------------------------------------------------------

struct TaskPolicyCase {
    const char* taskName;
    const char* message; // null for none
    std::unique_ptr<Framework::TaskPolicy> (*make)(const std::string& name);
};

template <typename PolicyType> std::unique_ptr<Framework::TaskPolicy> Make(const std::string& name) {
    return std::make_unique<PolicyType>(name);
}

class TaskPolicyModel : public ::testing::TestWithParam<TaskPolicyCase> {
protected:
    bool Parse(const std::string& text) {
        log.Clear();
        const bool result = policy->Parse(text);
        const std::size_t records = GetParam().message == nullptr ? 0 : 1;
        EXPECT_EQ(log.Records().size(), records);
        if (records == 1) {
            EXPECT_TRUE(
                log.Has(Poco::Message::PRIO_DEBUG, GetParam().message + std::string(" policy is [") + text + "]"));
        }
        return result;
    }

    TestSupport::LogRecorder log;
    std::unique_ptr<Framework::TaskPolicy> policy = GetParam().make(GetParam().taskName);
};

TEST_P(TaskPolicyModel, BearsTheTasksName) {
    EXPECT_EQ(policy->GetName(), GetParam().taskName);
}

TEST_P(TaskPolicyModel, TakesTheCondition) {
    EXPECT_TRUE(Parse(R"({"task_condition": {"period": 12}})"));
    EXPECT_EQ(policy->GetPeriodSeconds(), 12);
    EXPECT_TRUE(Parse(R"({"task_condition": {}})"));
    EXPECT_EQ(policy->GetPeriodSeconds(), 0);
}

TEST_P(TaskPolicyModel, AcceptsATextThatIsNoDocumentAndKeepsItsCondition) {
    EXPECT_TRUE(Parse(R"({"task_condition": {"period": 12}})"));
    EXPECT_TRUE(Parse("{"));
    EXPECT_TRUE(Parse(""));
    EXPECT_EQ(policy->GetPeriodSeconds(), 12);
}

TEST_P(TaskPolicyModel, RefusesADocumentWithoutCondition) {
    EXPECT_FALSE(Parse("{}"));
    EXPECT_FALSE(Parse("[]"));
    EXPECT_FALSE(Parse(R"({"period": 12})"));
}

TEST_P(TaskPolicyModel, RefusesWhatTheFrameworkTakesForNoCondition) {
    EXPECT_FALSE(Parse(R"({"task_condition": {"period": 0}})"));
    EXPECT_FALSE(Parse(R"({"task_condition": "often"})"));
    EXPECT_FALSE(Parse(R"({"task_condition": null})"));
}

TEST_P(TaskPolicyModel, NeverReportsAChange) {
    EXPECT_FALSE(policy->PolicyChanged("hash", "key"));
}

INSTANTIATE_TEST_SUITE_P(Tasks, TaskPolicyModel,
                         ::testing::Values(TaskPolicyCase{"specified_file_audit_task", "specified file audit task",
                                                          &Make<SpecifiedFileAuditTaskPolicy>},
                                           TaskPolicyCase{"full_proc_task", nullptr, &Make<FullProcTaskPolicy>},
                                           TaskPolicyCase{"process_manager_task", "process manager task",
                                                          &Make<ProcessManagerTaskPolicy>},
                                           TaskPolicyCase{"learn_status_check_task", "learn status check task",
                                                          &Make<LearnStatusCheckTaskPolicy>}),
                         [](const auto& parameter) { return std::string(parameter.param.taskName); });

} // namespace
