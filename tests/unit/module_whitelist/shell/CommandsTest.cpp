// The five server commands, as the framework invokes them: by key, with the raw text.

#include <string>

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "WhitelistModule.h"
#include "sdk/FileUtils.h"
#include "support/AgentAround.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using namespace Engine;

const std::string SERVER_LIST = "whitelist_10001";
const std::string OS_LIST = "whitelist_10002";
const std::string SERVICE_LIST = "whitelist_10003";
const std::string RESET = "whitelist_10004";
const std::string DETECT = "whitelist_10005";

const std::string ONE_PROCESS =
    R"({"process_info": [{"name": "ls", "path": "/bin/ls", "hash": "abc", "size": 1, "type": 1}]})";
const std::string ONE_PRESET = R"({"process_info": [{"filename": "ls", "sha256": "abc", "os": "o", "version": "v"}]})";

class Commands : public ::testing::Test {
protected:
    Commands() {
        EXPECT_EQ(module->Init(), 0);
        ProcessManager::Instance()->Init(static_cast<Framework::Task*>(engineTask.get()));
        log.Clear();
    }
    ~Commands() override { ProcessManager::Instance()->ForgetTask(engineTask.get()); }

    int Invoke(const std::string& key, const std::string& text) {
        int result = 4711;
        EXPECT_TRUE(module->InvokeTasklet(key, text, result));
        return result;
    }

    // The command that names this list.
    std::string PresetCommand(const std::string& list) const {
        const std::string file = root.Write("published.json", list);
        std::string digest;
        EXPECT_EQ(SDK::FileUtils::GetFileSha256(file, digest, 1000), 0);
        return R"({"url": "file://)" + file + R"(", "hash": ")" + digest + R"("})";
    }

    void GivenLearned() {
        root.Write("conf/modwhitelist.ini", "[Driver]\nLearnTime=1440\nLearnMod=2\n");
        ASSERT_TRUE(config.Init());
        ASSERT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 1}})"));
        ASSERT_EQ(config.GetMod(), MOD_LEARNED);
    }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<WhitelistModule> module{new WhitelistModule};
    Poco::AutoPtr<TestSupport::IdleTask> engineTask{new TestSupport::IdleTask("process_manager_task")};
    ConfigManager& config = *ConfigManager::Instance();
    ProcessManager& engine = *ProcessManager::Instance();
};

TEST_F(Commands, AListCommandWithoutTextIsRefusedWithoutAWord) {
    for (const std::string& key : {SERVER_LIST, OS_LIST, SERVICE_LIST}) {
        EXPECT_EQ(Invoke(key, ""), -1) << key;
    }
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(Commands, TheServerListReachesTheServerListAlone) {
    EXPECT_EQ(Invoke(SERVER_LIST, ONE_PROCESS), 0);
    EXPECT_EQ(engine.CountServerTrust(), 1U);
    EXPECT_EQ(engine.CountOsPreset(), 0U);
    EXPECT_EQ(engine.CountServicePreset(), 0U);
}

TEST_F(Commands, AnEmptyServerListCommandLeavesTheListAsItWas) {
    EXPECT_EQ(Invoke(SERVER_LIST, ONE_PROCESS), 0);
    EXPECT_EQ(Invoke(SERVER_LIST, ""), -1);
    EXPECT_EQ(engine.CountServerTrust(), 1U);
}

TEST_F(Commands, TheTextIsHandedOnWithItsLength) {
    EXPECT_EQ(Invoke(SERVER_LIST, ONE_PROCESS + std::string("\0garbage", 8)), 0);
    EXPECT_EQ(engine.CountServerTrust(), 0U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "parse json of sync service trust process failed"), 1);
}

TEST_F(Commands, TheOsPresetListReachesTheOsListAlone) {
    EXPECT_EQ(Invoke(OS_LIST, PresetCommand(ONE_PRESET)), 0);
    EXPECT_EQ(engine.CountOsPreset(), 1U);
    EXPECT_EQ(engine.CountServicePreset(), 0U);
    EXPECT_EQ(root.Read("conf/osPresetProcess.dat"), ONE_PRESET);
}

TEST_F(Commands, TheServicePresetListReachesTheServiceListAlone) {
    EXPECT_EQ(Invoke(SERVICE_LIST, PresetCommand(ONE_PRESET)), 0);
    EXPECT_EQ(engine.CountOsPreset(), 0U);
    EXPECT_EQ(engine.CountServicePreset(), 1U);
    EXPECT_EQ(root.Read("conf/servicePresetProcess.dat"), ONE_PRESET);
}

TEST_F(Commands, WhatTheStoresMakeOfAListIsNotLookedAt) {
    for (const std::string& key : {SERVER_LIST, OS_LIST, SERVICE_LIST}) {
        EXPECT_EQ(Invoke(key, "no json"), 0) << key;
    }
    EXPECT_EQ(engine.CountServerTrust() + engine.CountOsPreset() + engine.CountServicePreset(), 0U);
}

TEST_F(Commands, StartDetectTakesAnyText) {
    for (const std::string& text : {std::string(), std::string("no json"), ONE_PROCESS}) {
        GivenLearned();
        EXPECT_EQ(Invoke(DETECT, text), 0);
        EXPECT_EQ(config.GetMod(), MOD_DETECT);
    }
}

TEST_F(Commands, StartDetectIsDoneAlsoWhereItDoesNothing) {
    EXPECT_EQ(Invoke(DETECT, ""), 0);
    EXPECT_EQ(config.GetMod(), MOD_LEARN);
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1);
}

TEST_F(Commands, ResetTakesAnyText) {
    for (const std::string& text : {std::string(), std::string("no json"), ONE_PROCESS}) {
        GivenLearned();
        ASSERT_TRUE(config.ParsePolicy(R"({"content": {"learning_days": 2}})"));
        config.GetLearnedModFromFile();
        ASSERT_EQ(config.GetMod(), MOD_LEARNED);
        EXPECT_EQ(Invoke(RESET, text), 0);
        EXPECT_EQ(config.GetMod(), MOD_LEARN);
    }
}

TEST_F(Commands, ResetIsDoneAlsoWhereItFailed) {
    std::filesystem::remove_all(root / "conf");
    EXPECT_EQ(Invoke(RESET, ""), 0);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "ResetLearnModule Set file error"));
}

TEST_F(Commands, AfterUnInitThereAreNone) {
    EXPECT_EQ(module->UnInit(), 0);
    int result = 4711;
    for (const std::string& key : {SERVER_LIST, OS_LIST, SERVICE_LIST, RESET, DETECT}) {
        EXPECT_FALSE(module->InvokeTasklet(key, "", result)) << key;
    }
    EXPECT_EQ(result, 4711);
}

} // namespace
