// The module where what it needs is not to be had: no logger, no memory for a callback.

#include <new>
#include <string>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "RefusingAllocator.h"
#include "WhitelistModule.h"
#include "framework/Callback.h"
#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"
#include "support/TempRoot.h"

// The registry of this program hands out no logger.
Poco::Logger* SDK::LoggerUtils::GetModuleLogger(const std::string& /*name*/, bool /*console*/) {
    return nullptr;
}

namespace {

using Engine::WhitelistModule;
using ShellTest::Refusing;

class StarvedModule : public ::testing::Test {
protected:
    TestSupport::TempRoot root;
    Poco::AutoPtr<WhitelistModule> module{new WhitelistModule};
};

TEST_F(StarvedModule, WithoutALoggerEverythingElseIsTheSame) {
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(module->ListTasklets().size(), 5U);
    Framework::Policy* current = nullptr;
    EXPECT_EQ(module->RefreshFeaturePolicy("10001", "no json", current), nullptr);
    int result = 0;
    EXPECT_TRUE(module->InvokeTasklet("whitelist_10005", "", result));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(module->UnInit(), 0);
}

TEST_F(StarvedModule, WithoutMemoryForACommandsCallbackInitThrows) {
    {
        const Refusing refusing(Refusing::Form::Throwing, sizeof(Framework::TaskletCallback<WhitelistModule>));
        EXPECT_THROW(module->Init(), std::bad_alloc);
    }
    EXPECT_TRUE(module->ListTasklets().empty());
    EXPECT_TRUE(module->ListPolicyKeys().empty());
}

TEST_F(StarvedModule, WithoutMemoryForThePolicysCallbackTheKeyIsRegisteredWithoutOne) {
    {
        const Refusing refusing(Refusing::Form::NonThrowing, sizeof(Framework::PolicyCallback<WhitelistModule>));
        EXPECT_EQ(module->Init(), 0);
    }
    EXPECT_EQ(module->ListTasklets().size(), 5U);
    ASSERT_EQ(module->ListPolicyKeys().size(), 1U);
    EXPECT_EQ(module->ListPolicyKeys()[0], "10001");
    Framework::Policy* current = nullptr;
    EXPECT_FALSE(module->RefreshPolicy("10001", "", R"({"module_name": "whitelist_module"})", current));
    EXPECT_EQ(current, nullptr);
    EXPECT_EQ(module->UnInit(), 0);
}

} // namespace
