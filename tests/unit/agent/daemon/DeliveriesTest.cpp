#include "agent/daemon/Deliveries.h"

#include <filesystem>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeWhitelist.h"
#include "framework/Engine.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

namespace {

using Daemon::Deliveries;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* POLICY = R"({"feature_hash":"h1", "enabled":"enabled", "content":{}})";
constexpr const char* DISABLED_POLICY = R"({"feature_hash":"h2", "enabled":"no", "content":{}})";

class DeliveriesTest : public testing::Test {
protected:
    DeliveriesTest() {
        engine.AddModule(new TestSupport::FakeWhitelist(module), new TestSupport::FakeWhitelistInspector(module));
        EXPECT_EQ(engine.InitModules(), 0);
        Restart();
    }
    ~DeliveriesTest() override {
        deliveries.reset();
        engine.UnInitModules();
    }

    void Restart() {
        deliveries.reset();
        deliveries = std::make_unique<Deliveries>(engine, root.Path() + "/conf/", std::chrono::milliseconds(10));
    }

    void WishDetection() {
        root.Write("conf/desired.json", R"({"detect":true})");
        Restart();
    }

    std::string KeptPolicy() const { return root.Read("conf/policy.json"); }

    TestSupport::TempRoot root;
    TestSupport::FakeWhitelistStatePtr module = std::make_shared<TestSupport::FakeWhitelistState>();
    Framework::Engine engine;
    TestSupport::LogRecorder log; // behind the engine, which leads all loggers to the console
    std::unique_ptr<Deliveries> deliveries;
};

TEST_F(DeliveriesTest, AnAcceptedPolicyIsKeptAsTheTextItIs) {
    const Deliveries::Outcome outcome = deliveries->ApplyPolicy(POLICY);

    EXPECT_TRUE(outcome.accepted) << outcome.reason;
    EXPECT_EQ(KeptPolicy(), POLICY);
    EXPECT_EQ(deliveries->GetPolicy()["hash"], "h1");
    EXPECT_EQ(deliveries->GetPolicy()["document"]["feature_hash"], "h1");
}

TEST_F(DeliveriesTest, ARefusedPolicyLeavesTheKeptOneAndSaysWhy) {
    deliveries->ApplyPolicy(POLICY);

    const Deliveries::Outcome outcome = deliveries->ApplyPolicy("{ no json");

    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.reason, HasSubstr("Parse Policy Failed"));
    EXPECT_EQ(KeptPolicy(), POLICY);
    EXPECT_EQ(deliveries->GetPolicy()["hash"], "h1");
}

TEST_F(DeliveriesTest, ADeliveryThatChangesNothingDoesNotReplaceTheKeptPolicy) {
    deliveries->ApplyPolicy(POLICY);

    EXPECT_TRUE(deliveries->ApplyPolicy(R"({"feature_hash":"h1","enabled":"no","content":{}})").accepted);
    EXPECT_EQ(KeptPolicy(), POLICY);
}

TEST_F(DeliveriesTest, APolicyThatCannotBeKeptIsInForceAndSaysSo) {
    std::filesystem::remove_all(root / "conf");

    const Deliveries::Outcome outcome = deliveries->ApplyPolicy(POLICY);

    EXPECT_TRUE(outcome.accepted);
    ASSERT_EQ(outcome.notes.size(), 1U);
    EXPECT_THAT(outcome.notes[0], HasSubstr("could not be kept"));
}

TEST_F(DeliveriesTest, RestoreDeliversTheKeptPolicyAgain) {
    root.Write("conf/policy.json", POLICY);

    deliveries->Restore();

    EXPECT_THAT(module->Calls(), ElementsAre("policy"));
    EXPECT_EQ(deliveries->GetPolicy()["hash"], "h1");
}

TEST_F(DeliveriesTest, RestoreGoesOnWithoutAPolicyThatIsRefused) {
    root.Write("conf/policy.json", "rubbish");

    deliveries->Restore();

    EXPECT_TRUE(deliveries->GetPolicy().isNull());
    EXPECT_GE(log.CountAt(Poco::Message::PRIO_ERROR), 1);
    EXPECT_EQ(KeptPolicy(), "rubbish");
    EXPECT_TRUE(deliveries->ApplyPolicy(POLICY).accepted);
}

TEST_F(DeliveriesTest, RestoreWithoutAKeptPolicyDoesNothing) {
    deliveries->Restore();

    EXPECT_THAT(module->Calls(), IsEmpty());
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 0);
}

TEST_F(DeliveriesTest, ACommandReachesTheModuleWithItsText) {
    EXPECT_TRUE(deliveries->RunCommand("whitelist_10001", "{\"a\":1}").accepted);
    EXPECT_THAT(module->Calls(), ElementsAre("10001 {\"a\":1}"));
}

TEST_F(DeliveriesTest, ACommandThatIsRefusedOrUnknownComesWithAReason) {
    const Deliveries::Outcome empty = deliveries->RunCommand("whitelist_10001", "");
    EXPECT_FALSE(empty.accepted);
    EXPECT_NE(empty.reason, "");

    const Deliveries::Outcome unknown = deliveries->RunCommand("whitelist_99999", "{}");
    EXPECT_FALSE(unknown.accepted);
    EXPECT_THAT(unknown.reason, HasSubstr("whitelist_99999"));
}

TEST_F(DeliveriesTest, AStartThatLeavesTheModuleDetectingSetsTheWish) {
    module->mode = 2;

    EXPECT_TRUE(deliveries->RunCommand("whitelist_10005", "").accepted);
    EXPECT_TRUE(deliveries->IsDetectionWished());
    EXPECT_EQ(root.Read("conf/desired.json"), "{\"detect\":true}\n");
}

TEST_F(DeliveriesTest, AStartWhileLearningIsRefusedWithTheModulesReasonAndSetsNoWish) {
    module->mode = 1;

    const Deliveries::Outcome outcome = deliveries->RunCommand("whitelist_10005", "");

    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.reason, HasSubstr("current mod is [1]"));
    EXPECT_FALSE(deliveries->IsDetectionWished());
}

TEST_F(DeliveriesTest, AStartThatIsRefusedLeavesAnEarlierWish) {
    WishDetection();
    module->mode = 1;

    EXPECT_FALSE(deliveries->RunCommand("whitelist_10005", "").accepted);
    EXPECT_TRUE(deliveries->IsDetectionWished());
}

TEST_F(DeliveriesTest, AStartWhileDetectingAlreadyIsAccepted) {
    module->mode = 3;

    EXPECT_TRUE(deliveries->RunCommand("whitelist_10005", "").accepted);
    EXPECT_TRUE(deliveries->IsDetectionWished());
}

TEST_F(DeliveriesTest, AStartWhoseEffectCannotBeSeenIsRefused) {
    module->answers = false;

    const Deliveries::Outcome outcome = deliveries->RunCommand("whitelist_10005", "");

    EXPECT_FALSE(outcome.accepted);
    EXPECT_THAT(outcome.reason, HasSubstr("not now"));
}

TEST_F(DeliveriesTest, AResetOfLearningWithdrawsTheWish) {
    WishDetection();

    EXPECT_TRUE(deliveries->RunCommand("whitelist_10004", "").accepted);
    EXPECT_FALSE(deliveries->IsDetectionWished());
}

TEST_F(DeliveriesTest, AWishedDetectionIsStartedAfterAnAcceptedPolicy) {
    WishDetection();
    module->mode = 2;

    EXPECT_TRUE(deliveries->ApplyPolicy(POLICY).accepted);

    EXPECT_THAT(module->Calls(), ElementsAre("policy", "10005"));
    EXPECT_EQ(module->mode, 3);
}

TEST_F(DeliveriesTest, AWishedDetectionIsStartedAfterARestoreFromModeZeroByWayOfAReset) {
    root.Write("conf/policy.json", POLICY);
    WishDetection();
    module->mode = 0;
    module->modeAfterReset = 2;

    deliveries->Restore();

    EXPECT_THAT(module->Calls(), ElementsAre("policy", "10004", "10005"));
    EXPECT_EQ(module->mode, 3);
    EXPECT_TRUE(deliveries->IsDetectionWished());
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_NOTICE,
                        "detection is wished: issued [whitelist_10004] to reset learning, which is complete"));
    EXPECT_TRUE(
        log.Has(Poco::Message::PRIO_NOTICE, "detection is wished: issued [whitelist_10005] to start detection"));
}

TEST_F(DeliveriesTest, DetectionIsNotStartedWithoutTheWish) {
    module->mode = 2;

    deliveries->ApplyPolicy(POLICY);

    EXPECT_THAT(module->Calls(), ElementsAre("policy"));
}

TEST_F(DeliveriesTest, DetectionIsNotStartedForAFeatureThatIsNotEnabled) {
    WishDetection();
    module->mode = 2;

    deliveries->ApplyPolicy(DISABLED_POLICY);

    EXPECT_THAT(module->Calls(), ElementsAre("policy"));
}

TEST_F(DeliveriesTest, AWishedDetectionIsStartedOnceTheModuleHasLearned) {
    WishDetection();
    module->mode = 1;
    deliveries->ApplyPolicy(POLICY);
    ASSERT_THAT(module->Calls(), ElementsAre("policy"));

    module->mode = 2;

    EXPECT_TRUE(TestSupport::WaitFor([this] { return module->mode == 3; }));
    EXPECT_THAT(module->Calls(), ElementsAre("policy", "10005"));
}

TEST_F(DeliveriesTest, DeliveriesOfManyThreadsHappenOneAfterTheOther) {
    module->commandMs = 1;
    std::vector<std::future<bool>> results;
    for (int i = 0; i < 20; ++i) {
        results.push_back(std::async(std::launch::async, [this, i] {
            return deliveries->RunCommand("whitelist_10001", std::to_string(i)).accepted;
        }));
    }
    for (std::future<bool>& result : results) {
        EXPECT_TRUE(result.get());
    }
    EXPECT_EQ(module->Calls().size(), 20U);
}

TEST_F(DeliveriesTest, AStopEndsTheDeliveryUnderWayAndRefusesTheOthers) {
    module->commandMs = 200;
    auto first = std::async(std::launch::async, [this] { return deliveries->RunCommand("whitelist_10001", "1"); });
    ASSERT_TRUE(TestSupport::WaitFor([this] { return module->Calls().size() == 1; }));
    auto second = std::async(std::launch::async, [this] { return deliveries->RunCommand("whitelist_10001", "2"); });

    deliveries->Stop();

    EXPECT_TRUE(first.get().accepted);
    EXPECT_EQ(second.get().reason, "the agent is stopping");
    EXPECT_EQ(deliveries->ApplyPolicy(POLICY).reason, "the agent is stopping");
    EXPECT_THAT(module->Calls(), ElementsAre("10001 1"));
}

} // namespace
