#include "framework/Policy.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestModule.h"

using namespace FrameworkTest;
using Framework::CompositePolicy;
using Framework::Policy;
using testing::ElementsAre;

namespace {

// Writes down that it was dispatched, and in whose place.
class NotedPolicy : public Policy {
public:
    NotedPolicy(const std::string& name, std::vector<std::string>& notes) : Policy(name), mNotes(notes) {}
    bool Parse(const std::string&) override { return true; }
    void Dispatch(Policy* superseded) override {
        mNotes.push_back(GetName() + (superseded == nullptr ? "" : " for " + superseded->GetName()));
    }

private:
    std::vector<std::string>& mNotes;
};

class PlainPolicy : public Policy {
public:
    using Policy::Policy;
    bool Parse(const std::string&) override { return true; }
};

class PlainComposite : public CompositePolicy {
public:
    using CompositePolicy::CompositePolicy;
    bool Parse(const std::string&) override { return true; }
};

} // namespace

TEST(Policy, APlainPolicyReportsNoChangeAndIsNotSuperseded) {
    PlainPolicy policy("name");
    EXPECT_EQ(policy.GetName(), "name");
    EXPECT_FALSE(policy.PolicyChanged("hash", "key"));
    EXPECT_FALSE(policy.IsSuperseded());
    policy.SetSuperseded(true);
    EXPECT_TRUE(policy.IsSuperseded());
}

TEST(Policy, ACompositeDispatchesItsChildrenInOrder) {
    std::vector<std::string> notes;
    PlainComposite composite("parent");
    composite.Add(new NotedPolicy("b", notes));
    composite.Add(new NotedPolicy("a", notes));
    composite.Dispatch(nullptr);
    EXPECT_THAT(notes, ElementsAre("b", "a"));
}

TEST(Policy, AChildTakesThePlaceOfTheChildOfItsName) {
    std::vector<std::string> notes;
    PlainComposite before("parent");
    before.Add(new NotedPolicy("a", notes));
    PlainComposite after("parent");
    after.Add(new NotedPolicy("a", notes));
    after.Add(new NotedPolicy("new", notes));
    after.Dispatch(&before);
    EXPECT_THAT(notes, ElementsAre("a for a", "new"));
}

TEST(Policy, AFeaturePolicyChangesWithItsHashOrItsKey) {
    TestFeaturePolicy policy("hash", true);
    policy.SetPolicyKey("key");
    EXPECT_FALSE(policy.PolicyChanged("hash", "key"));
    EXPECT_TRUE(policy.PolicyChanged("other", "key"));
    EXPECT_TRUE(policy.PolicyChanged("hash", "other"));
}

TEST(Policy, AFeaturePolicyIsNotEnabledAtFirst) {
    class BareFeature : public Framework::FeaturePolicy {
    public:
        using Framework::FeaturePolicy::FeaturePolicy;
        bool Parse(const std::string&) override { return true; }
    };
    EXPECT_FALSE(BareFeature("name").IsEnabled());
}

TEST(Policy, ATaskPolicyKeepsAnAcceptedCondition) {
    TestTaskPolicy policy("task");
    EXPECT_EQ(policy.GetPeriodSeconds(), 0);
    EXPECT_TRUE(policy.ParseCondition(R"({"period":60})"));
    EXPECT_EQ(policy.GetPeriodSeconds(), 60);
    EXPECT_TRUE(policy.ParseCondition("{}"));
    EXPECT_EQ(policy.GetPeriodSeconds(), 0);
}

TEST(Policy, ATaskPolicyIsUnchangedByARefusedCondition) {
    TestTaskPolicy policy("task");
    ASSERT_TRUE(policy.ParseCondition(R"({"period":60})"));
    EXPECT_FALSE(policy.ParseCondition(R"({"period":0})"));
    EXPECT_FALSE(policy.ParseCondition("no json"));
    EXPECT_EQ(policy.GetPeriodSeconds(), 60);
}

TEST(Policy, ATaskPolicyForNobodyIsDispatchedWithoutHarm) {
    TestTaskPolicy policy("nobody");
    policy.Dispatch(nullptr);
    EXPECT_EQ(policy.GetPeriodSeconds(), 0);
}
