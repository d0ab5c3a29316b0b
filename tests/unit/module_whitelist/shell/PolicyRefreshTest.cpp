#include <memory>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "RegistrationJournal.h"
#include "WhitelistModule.h"
#include "WhitelistPolicy.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using namespace Engine;
using ShellTest::RegistrationJournal;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string TASK_CONDITIONS = R"("full_proc_task": {"task_condition": {"period": 60}},
    "process_manager_task": {"task_condition": {}}, "learn_status_check_task": {"task_condition": {}})";

std::string Document(const std::string& hash = "h1", const std::string& enabled = "enabled",
                     const std::string& featureName = "whitelist_feature",
                     const std::string& moduleName = "whitelist_module", const std::string& days = "7") {
    return R"({"module_name": ")" + moduleName + R"(", "feature_name": ")" + featureName + R"(", "enabled": ")" +
           enabled + R"(", "feature_hash": ")" + hash + R"(", "content": {"learning_days": )" + days + ", " +
           TASK_CONDITIONS + "}}";
}

std::string DirectoryModeDocument(const std::string& featureName = "whitelist_feature") {
    return R"({"module_name": "whitelist_module", "feature_name": ")" + featureName +
           R"(", "enabled": "enabled", "feature_hash": "h1", "content": {"learning_days": 7, "dir_mod": true,
        "dirs": [], "exts": [], "specified_file_audit_task": {"task_condition": {}}, )" +
           TASK_CONDITIONS + "}}";
}

template <typename TaskList> std::vector<std::string> NamesOf(const TaskList& tasks) {
    std::vector<std::string> names;
    for (const auto& task : tasks) {
        names.push_back(task->name());
    }
    return names;
}

// ---- The handler by itself -------------------------------------------------------------------------

class PolicyRefresh : public ::testing::Test {
protected:
    PolicyRefresh() {
        EXPECT_EQ(module->Init(), 0);
        RegistrationJournal().clear();
        log.Clear();
    }

    // The policy that the handler makes; null when it refuses.
    std::unique_ptr<Framework::Policy> Refresh(const std::string& document, const std::string& key = "10001") {
        return std::unique_ptr<Framework::Policy>(module->RefreshFeaturePolicy(key, document, current));
    }

    static const WhitelistPolicy& Made(const std::unique_ptr<Framework::Policy>& policy) {
        return dynamic_cast<const WhitelistPolicy&>(*policy);
    }

    void ExpectRefusedBeforeAnyTask(const std::string& document) {
        EXPECT_EQ(Refresh(document), nullptr) << document;
        EXPECT_THAT(RegistrationJournal(), IsEmpty());
        EXPECT_EQ(ConfigManager::Instance()->GetLearnPeriod(), 0);
    }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<WhitelistModule> module{new WhitelistModule};
    Framework::Policy* current = nullptr;
};

TEST_F(PolicyRefresh, MakesThePolicyAndRegistersThreeTasksInOrder) {
    const auto policy = Refresh(Document());
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(policy->GetName(), "whitelist_feature");
    EXPECT_EQ(Made(policy).GetFeatureHash(), "h1");
    EXPECT_TRUE(Made(policy).IsEnabled());
    EXPECT_EQ(Made(policy).GetLearnPeriod(), 10080);
    EXPECT_EQ(Made(policy).GetChildren().size(), 3U);
    EXPECT_FALSE(policy->IsSuperseded());
    EXPECT_THAT(RegistrationJournal(),
                ElementsAre("RegisterTask full_proc_task later", "RegisterTask process_manager_task later",
                            "RegisterTask learn_status_check_task later"));
    EXPECT_THAT(NamesOf(module->GetRegisteredTasks()),
                ElementsAre("full_proc_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

TEST_F(PolicyRefresh, LogsTheWholeDocumentFirst) {
    const std::string document = Document();
    EXPECT_NE(Refresh(document), nullptr);
    EXPECT_EQ(log.Records().at(0).text, "policy is [" + document + "]");
    EXPECT_EQ(log.Records().at(0).priority, Poco::Message::PRIO_DEBUG);
}

TEST_F(PolicyRefresh, DoesNotUseTheKey) {
    EXPECT_NE(Refresh(Document(), "any"), nullptr);
}

TEST_F(PolicyRefresh, RefusesTextThatIsNotJson) {
    ExpectRefusedBeforeAnyTask("no json");
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Parse Policy Failed"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PolicyRefresh, RefusesAnotherModulesPolicy) {
    for (const std::string name : {"other_module", "Whitelist_module", "whitelist_module ", "whitelist", ""}) {
        log.Clear();
        ExpectRefusedBeforeAnyTask(Document("h1", "enabled", "whitelist_feature", name));
        EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                            "The policy content(moduleName=" + name + ") does not belong to module_whitelist"),
                  1);
        EXPECT_EQ(log.Records().size(), 2U);
    }
}

TEST_F(PolicyRefresh, RefusesAPolicyThatNamesNoModule) {
    for (const char* document : {R"({"content": {}})", R"({"module_name": 5, "content": {}})", "[]"}) {
        log.Clear();
        ExpectRefusedBeforeAnyTask(document);
        EXPECT_EQ(
            log.Count(Poco::Message::PRIO_ERROR, "The policy content(moduleName=) does not belong to module_whitelist"),
            1);
    }
}

TEST_F(PolicyRefresh, RefusesAPolicyWithoutContentWithoutAWord) {
    ExpectRefusedBeforeAnyTask(R"({"module_name": "whitelist_module", "feature_name": "whitelist_feature"})");
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 0);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(PolicyRefresh, RefusesAnotherFeatureAfterItsTasksWereRegistered) {
    for (const std::string name : {"other_feature", "Whitelist_feature", "whitelist_feature2", ""}) {
        log.Clear();
        const std::size_t before = module->GetRegisteredTasks().size();
        EXPECT_EQ(Refresh(Document("h1", "enabled", name)), nullptr);
        EXPECT_EQ(module->GetRegisteredTasks().size(), before + 3);
        EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "unknown feature name"), 1);
        EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1);
        EXPECT_EQ(ConfigManager::Instance()->GetLearnPeriod(), 0);
    }
}

TEST_F(PolicyRefresh, OnlyTheWordEnabledEnables) {
    for (const std::string word : {"Enabled", "ENABLED", "disabled", "true", "", "enabled "}) {
        const auto policy = Refresh(Document("h1", word));
        ASSERT_NE(policy, nullptr);
        EXPECT_FALSE(Made(policy).IsEnabled()) << word;
    }
    const auto absent = Refresh(
        R"({"module_name": "whitelist_module", "feature_name": "whitelist_feature", "content": {"learning_days": 1}})");
    ASSERT_NE(absent, nullptr);
    EXPECT_FALSE(Made(absent).IsEnabled());
    EXPECT_EQ(Made(absent).GetFeatureHash(), "");
}

TEST_F(PolicyRefresh, MakesThePolicyAlsoWhereItsParseFails) {
    const auto policy = Refresh(R"({"module_name": "whitelist_module", "feature_name": "whitelist_feature",
        "content": {"learning_days": 2, "full_proc_task": {}}})");
    ASSERT_NE(policy, nullptr);
    EXPECT_EQ(Made(policy).GetLearnPeriod(), 2880);
    EXPECT_THAT(Made(policy).GetChildren(), IsEmpty());
}

TEST_F(PolicyRefresh, MarksTheInstalledPolicySupersededAndLeavesItInPlace) {
    WhitelistPolicy installed("whitelist_feature");
    current = &installed;
    const auto policy = Refresh(Document());
    EXPECT_NE(policy, nullptr);
    EXPECT_TRUE(installed.IsSuperseded());
    EXPECT_EQ(current, &installed);
}

TEST_F(PolicyRefresh, ARefusalDoesNotMarkTheInstalledPolicy) {
    WhitelistPolicy installed("whitelist_feature");
    current = &installed;
    EXPECT_EQ(Refresh("no json"), nullptr);
    EXPECT_EQ(Refresh(Document("h1", "enabled", "other")), nullptr);
    EXPECT_FALSE(installed.IsSuperseded());
    EXPECT_EQ(current, &installed);
}

TEST_F(PolicyRefresh, TwoPoliciesRegisterTwoSetsOfTasks) {
    EXPECT_NE(Refresh(Document("h1")), nullptr);
    const auto first = module->GetRegisteredTasks();
    EXPECT_NE(Refresh(Document("h2")), nullptr);
    const auto both = module->GetRegisteredTasks();
    ASSERT_EQ(both.size(), 6U);
    EXPECT_NE(both[3].get(), first[0].get());
}

TEST_F(PolicyRefresh, InDirectoryModeTheFileAuditTakesThePlaceOfTheFullScan) {
    const auto policy = Refresh(DirectoryModeDocument());
    ASSERT_NE(policy, nullptr);
    EXPECT_TRUE(Made(policy).GetDirMod());
    EXPECT_EQ(Made(policy).GetChildren().size(), 3U);
    EXPECT_THAT(RegistrationJournal(),
                ElementsAre("RegisterTask specified_file_audit_task later", "RegisterTask process_manager_task later",
                            "RegisterTask learn_status_check_task later"));
    EXPECT_THAT(NamesOf(module->GetRegisteredTasks()),
                ElementsAre("specified_file_audit_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 0);
}

TEST_F(PolicyRefresh, OnlyTheBooleanTrueIsDirectoryMode) {
    for (const std::string value : {"false", "\"true\"", "1", "null"}) {
        RegistrationJournal().clear();
        const auto policy = Refresh(R"({"module_name": "whitelist_module", "feature_name": "whitelist_feature",
            "content": {"learning_days": 7, "dir_mod": )" +
                                    value + "}}");
        EXPECT_NE(policy, nullptr);
        ASSERT_EQ(RegistrationJournal().size(), 3U);
        EXPECT_EQ(RegistrationJournal()[0], "RegisterTask full_proc_task later") << value;
    }
}

TEST_F(PolicyRefresh, InDirectoryModeTooRefusesAnotherFeatureAfterItsTasksWereRegistered) {
    EXPECT_EQ(Refresh(DirectoryModeDocument("other_feature")), nullptr);
    EXPECT_THAT(NamesOf(module->GetRegisteredTasks()),
                ElementsAre("specified_file_audit_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "unknown feature name"), 1);
    EXPECT_EQ(ConfigManager::Instance()->GetLearnPeriod(), 0);
}

// ---- Delivered by the framework --------------------------------------------------------------------

class PolicyDelivery : public ::testing::Test {
protected:
    PolicyDelivery() {
        agent.engine.AddModule(module);
        EXPECT_EQ(agent.engine.InitModules(), 0);
    }

    TestSupport::TempRoot root;
    TestSupport::AgentAround agent;
    TestSupport::LogRecorder log;
    WhitelistModule* module = new WhitelistModule; // the engine's
};

TEST_F(PolicyDelivery, StartsTheTasksWithTheirConditions) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document()).accepted);
    auto tasks = module->GetRunningTasks();
    ASSERT_THAT(NamesOf(tasks), ElementsAre("full_proc_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_EQ(tasks[0]->GetCondition().GetTaskCondition(), 60);
    EXPECT_FALSE(tasks[1]->GetCondition().IsPeriodic());
    EXPECT_FALSE(tasks[2]->GetCondition().IsPeriodic());
    for (auto& task : tasks) {
        EXPECT_EQ(task->GetFeatureName(), "whitelist_feature");
        EXPECT_EQ(task->GetCondition().GetTaskType(), Framework::TaskCondition::TaskType::Thread);
    }
    EXPECT_EQ(tasks[0]->GetQueueCapacity(), 1024U);
    EXPECT_EQ(tasks[1]->GetQueueCapacity(), 10240U);
    EXPECT_EQ(tasks[2]->GetQueueCapacity(), 1024U);
}

TEST_F(PolicyDelivery, InDirectoryModeStartsTheFileAudit) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", DirectoryModeDocument()).accepted);
    EXPECT_THAT(NamesOf(module->GetRunningTasks()),
                ElementsAre("specified_file_audit_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_TRUE(TestSupport::WaitFor(
        [&] { return log.Has(Poco::Message::PRIO_INFORMATION, "specified file audit task START"); }));
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h2")).accepted);
    EXPECT_THAT(NamesOf(module->GetRunningTasks()),
                ElementsAre("full_proc_task", "process_manager_task", "learn_status_check_task"));
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "UnInit specified file audit task"));
}

TEST_F(PolicyDelivery, RunsTheTasks) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document()).accepted);
    EXPECT_TRUE(TestSupport::WaitFor([&] {
        return agent.Subscriptions().KindsOf("process_manager_task") == std::vector<unsigned int>{1, 2, 3};
    }));
    EXPECT_TRUE(TestSupport::WaitFor([&] { return !agent.Reports().Of("whitelist_6").empty(); }));
}

TEST_F(PolicyDelivery, OfADisabledFeatureStartsNothing) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h1", "Enabled")).accepted);
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

TEST_F(PolicyDelivery, ReplacesTheTasksOfTheEarlierPolicy) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h1")).accepted);
    const auto before = module->GetRunningTasks();
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h2")).accepted);
    const auto after = module->GetRunningTasks();
    EXPECT_EQ(NamesOf(after), NamesOf(before));
    ASSERT_EQ(after.size(), 3U);
    EXPECT_NE(after[0].get(), before[0].get());
}

TEST_F(PolicyDelivery, OfAnotherFeatureIsRefusedAndTheInstalledPolicyGoesOn) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h1")).accepted);
    const auto outcome = agent.engine.DeliverPolicy("10001", Document("h2", "enabled", "other"));
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.reason, "unknown feature name");
    EXPECT_EQ(module->GetRunningTasks().size(), 3U);
    EXPECT_EQ(agent.engine.GetPolicy("10001")["hash"].asString(), "h1");
}

TEST_F(PolicyDelivery, WithTheInstalledHashChangesNothing) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document("h1")).accepted);
    const auto before = module->GetRunningTasks();
    EXPECT_TRUE(
        agent.engine.DeliverPolicy("10001", Document("h1", "enabled", "whitelist_feature", "whitelist_module", "3"))
            .accepted);
    EXPECT_EQ(module->GetRunningTasks().at(0).get(), before.at(0).get());
    EXPECT_EQ(ConfigManager::Instance()->GetLearnPeriod(), 10080);
}

TEST_F(PolicyDelivery, UnInitEndsTheTasksInReverse) {
    EXPECT_TRUE(agent.engine.DeliverPolicy("10001", Document()).accepted);
    log.Clear();
    EXPECT_EQ(module->UnInit(), 0);
    std::vector<std::string> ended;
    for (const auto& record : log.Records()) {
        if (record.text.starts_with("UnInit")) {
            EXPECT_EQ(record.priority, Poco::Message::PRIO_DEBUG);
            ended.push_back(record.file + ": " + record.text);
        }
    }
    EXPECT_THAT(ended, ElementsAre("LearnStatusCheckTask.cpp: UnInit learn status check task",
                                   "ProcessManagerTask.cpp: UnInit  process manager task",
                                   "FullProcTask.cpp: UnInit  process manager task"));
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

} // namespace
