// The library as it is shipped, loaded as the daemon loads it.

#include <memory>
#include <string>

#include <Poco/AutoPtr.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/ModuleInspector.h"
#include "support/TempRoot.h"

namespace {

class Library : public ::testing::Test {
protected:
    void SetUp() override {
        library = dlopen(MODULE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
    }

    template <typename Function> Function Find(const char* name) const {
        return reinterpret_cast<Function>(dlsym(library, name));
    }

    TestSupport::TempRoot root;
    void* library = nullptr;
};

TEST_F(Library, MakesAModuleOfItsNameThatTheCallerOwns) {
    const auto create = Find<CreateModuleFunction>("CreateModule");
    ASSERT_NE(create, nullptr);
    const Poco::AutoPtr<Framework::Module> module(create());
    ASSERT_TRUE(module);
    EXPECT_STREQ(module->name(), "whitelist_module");
    EXPECT_EQ(module->referenceCount(), 1);
}

TEST_F(Library, MakesANewModuleEveryTime) {
    const auto create = Find<CreateModuleFunction>("CreateModule");
    ASSERT_NE(create, nullptr);
    const Poco::AutoPtr<Framework::Module> one(create());
    const Poco::AutoPtr<Framework::Module> other(create());
    EXPECT_NE(one.get(), other.get());
}

TEST_F(Library, ItsModuleRegistersItsCallbacks) {
    const auto create = Find<CreateModuleFunction>("CreateModule");
    ASSERT_NE(create, nullptr);
    Poco::AutoPtr<Framework::Module> module(create());
    EXPECT_TRUE(module->ListTasklets().empty());
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(module->ListTasklets().size(), 5U);
    EXPECT_EQ(module->ListPolicyKeys().size(), 1U);
    EXPECT_EQ(root.Read("conf/modwhitelist.ini"), "");
    EXPECT_EQ(module->UnInit(), 0);
}

TEST_F(Library, MakesAnInspector) {
    const auto create = Find<CreateModuleInspectorFunction>("CreateModuleInspector");
    ASSERT_NE(create, nullptr);
    const std::unique_ptr<Framework::ModuleInspector> inspector(create());
    ASSERT_NE(inspector, nullptr);
}

TEST_F(Library, IsLoadedByTheEngine) {
    Framework::Engine engine;
    std::string reason;
    ASSERT_TRUE(engine.LoadModule(MODULE_LIBRARY, reason)) << reason;
    EXPECT_EQ(engine.InitModules(), 0);
    Json::Value status(Json::objectValue);
    status["query"] = "status";
    EXPECT_EQ(engine.Ask("whitelist_module", status)["mode"].asInt(), 1);
    EXPECT_FALSE(engine.DeliverCommand("whitelist_10001", "").accepted);
    EXPECT_TRUE(engine.DeliverCommand("whitelist_10005", "").accepted);
    engine.UnInitModules();
}

} // namespace
