// The module where what it needs is not to be had: no logger, no memory for a callback.

#include <cstdlib>
#include <new>
#include <string>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "WhitelistModule.h"
#include "framework/Callback.h"
#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"
#include "support/TempRoot.h"

namespace {

// What this program's allocator refuses to this thread while one lives.
class Refusing {
public:
    enum class Form { Throwing, NonThrowing };

    Refusing(Form form, std::size_t size) {
        refusedForm = form;
        refusedSize = size;
    }
    ~Refusing() { refusedSize = 0; }
    Refusing(const Refusing&) = delete;
    Refusing& operator=(const Refusing&) = delete;

    static bool Applies(Form form, std::size_t size) { return size != 0 && size == refusedSize && form == refusedForm; }

private:
    static thread_local Form refusedForm;
    static thread_local std::size_t refusedSize;
};

thread_local Refusing::Form Refusing::refusedForm = Refusing::Form::Throwing;
thread_local std::size_t Refusing::refusedSize = 0;

} // namespace

void* operator new(std::size_t size) {
    void* memory = Refusing::Applies(Refusing::Form::Throwing, size) ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return Refusing::Applies(Refusing::Form::NonThrowing, size) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}

// The registry of this program hands out no logger.
Poco::Logger* SDK::LoggerUtils::GetModuleLogger(const std::string& /*name*/, bool /*console*/) {
    return nullptr;
}

namespace {

using Engine::WhitelistModule;

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
