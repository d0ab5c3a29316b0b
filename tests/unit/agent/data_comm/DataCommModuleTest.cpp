#include "agent/data_comm/DataCommModule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/data_comm/DataCommTask.h"
#include "agent/data_comm/ReportStore.h"
#include "framework/Counters.h"
#include "framework/Engine.h"
#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using Engine::DataCommInspector;
using Engine::DataCommModule;
using Engine::ReportStore;
using SDK::JsonUtils;

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(JsonUtils::ParseJsonStr(text, value), 0) << text;
    return value;
}

class DataCommModuleTest : public testing::Test {
protected:
    void Store(const std::vector<Engine::Report>& reports) {
        std::string reason;
        ASSERT_TRUE(store.Append(reports, reason)) << reason;
    }

    std::string Ask(const std::string& request) { return JsonUtils::JsonToString(inspector.Ask(Parse(request))); }

    TestSupport::TempRoot root;
    ReportStore store{Engine::GetReportsPath()};
    DataCommInspector inspector;
};

TEST_F(DataCommModuleTest, AReportIsAnsweredWithItsDocumentAsItWasSent) {
    Store({{0, 7, "whitelist_4", R"({"b":1,"a":[true]})"}, {0, 8, "odd", "no document"}});

    EXPECT_EQ(Ask(R"({"query":"reports"})"),
              R"({"reports":[{"data":{"a":[true],"b":1},"id":1,"time":7,"type":"whitelist_4"},)"
              R"({"data":"no document","id":2,"time":8,"type":"odd"}]})");
}

TEST_F(DataCommModuleTest, AQuestionMayRestrictAndTurnTheOrder) {
    Store({{0, 1, "a", "{}"}, {0, 2, "b", "{}"}, {0, 3, "a", "{}"}, {0, 4, "a", "{}"}});

    EXPECT_EQ(Ask(R"({"query":"reports","type":"a","since":2,"after":1,"limit":1})"),
              R"({"reports":[{"data":{},"id":3,"time":3,"type":"a"}]})");
    EXPECT_EQ(Ask(R"({"query":"reports","limit":1,"newest_first":true})"),
              R"({"reports":[{"data":{},"id":4,"time":4,"type":"a"}]})");
}

TEST_F(DataCommModuleTest, CountTellsAllAndAlerts) {
    Store({{0, 1, "whitelist_4", "{}"}, {0, 2, "whitelist_6", "{}"}});

    EXPECT_EQ(Ask(R"({"query":"count"})"), R"({"alerts":1,"total":2})");
}

TEST_F(DataCommModuleTest, TheSummaryTellsEachProgramThatWasNotBlocked) {
    const std::string alert =
        R"({"process_info":{"block":0,"process_hash":"aa","process_path":"/opt/tool","process_uid":5}})";
    Store({{0, 3, "whitelist_4", alert}, {0, 8, "whitelist_4", alert}});

    EXPECT_EQ(Ask(R"({"query":"alert_summary"})"),
              R"({"complete":true,"programs":[{"count":2,"first_seen":3,"hash":"aa","last_seen":8,)"
              R"("path":"/opt/tool","users":["5"]}]})");
    EXPECT_EQ(Ask(R"({"query":"alert_summary","since":9})"), R"({"complete":true,"programs":[]})");
    EXPECT_EQ(Ask(R"({"query":"alert_summary","since":"x"})"), R"({"error":"since is a whole number of at least 0"})");
}

TEST_F(DataCommModuleTest, AQuestionThatMakesNoSenseIsAnsweredWithAnError) {
    Store({{0, 1, "a", "{}"}});

    EXPECT_EQ(Ask(R"({"query":"reports","since":-1})"),
              R"({"error":"since, after and limit are whole numbers of at least 0"})");
    EXPECT_EQ(Ask(R"({"query":"reports","limit":"many"})"),
              R"({"error":"since, after and limit are whole numbers of at least 0"})");
    EXPECT_EQ(Ask(R"({"query":"reports","type":5})"), R"({"error":"type is a text"})");
    EXPECT_EQ(Ask(R"({"query":"weather"})"), R"({"error":"unknown query [weather]"})");
    EXPECT_EQ(Ask("[]"), R"({"error":"unknown query []"})");
}

TEST_F(DataCommModuleTest, AHistoryThatIsNotThereIsAnError) {
    EXPECT_THAT(Ask(R"({"query":"count"})"), testing::HasSubstr("cannot be read"));
    EXPECT_THAT(Ask(R"({"query":"alert_summary"})"), testing::HasSubstr("cannot be read"));
}

TEST_F(DataCommModuleTest, TheTaskRunsFromInitToUnInitWithoutAPolicy) {
    const Framework::Counter& stored = Framework::Counters::Of("reports.stored");
    const std::uint64_t before = stored.Get();
    Framework::Engine engine;
    engine.AddModule(new DataCommModule, new DataCommInspector);
    ASSERT_EQ(engine.InitModules(), 0);

    auto task = Framework::Engine::FindTask(Engine::DataCommTask::NAME);
    ASSERT_TRUE(task);
    std::shared_ptr<Framework::Message> report = std::make_shared<Framework::DataMessage>("whitelist_4", "{}");
    ASSERT_TRUE(task->EnqueueMsg(report));
    ASSERT_TRUE(TestSupport::WaitFor([&] { return stored.Get() == before + 1; }));
    EXPECT_EQ(JsonUtils::JsonToString(engine.Ask(DataCommModule::NAME, Parse(R"({"query":"count"})"))),
              R"({"alerts":1,"total":1})");

    engine.UnInitModules();
    EXPECT_FALSE(Framework::Engine::FindTask(Engine::DataCommTask::NAME));
}

} // namespace
