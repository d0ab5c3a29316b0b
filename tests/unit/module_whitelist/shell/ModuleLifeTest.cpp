#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "RegistrationJournal.h"
#include "WhitelistModule.h"
#include "sdk/HttpUtils.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"
#include "utils/Constants.h"
#include "utils/StateFiles.h"

namespace {

using namespace Engine;
using ShellTest::RegistrationJournal;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::vector<std::string> COMMAND_KEYS = {"whitelist_10001", "whitelist_10002", "whitelist_10003",
                                               "whitelist_10004", "whitelist_10005"};

class ModuleLife : public ::testing::Test {
protected:
    std::vector<std::string> CommandKeys() const {
        std::vector<std::string> keys;
        for (const auto& [key, callback] : module->ListTasklets()) {
            keys.push_back(key);
        }
        return keys;
    }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    Poco::AutoPtr<WhitelistModule> module{new WhitelistModule};
};

TEST_F(ModuleLife, TheModuleBearsItsName) {
    EXPECT_STREQ(module->name(), "whitelist_module");
    EXPECT_THAT(CommandKeys(), IsEmpty());
    EXPECT_THAT(module->ListPolicyKeys(), IsEmpty());
}

TEST_F(ModuleLife, InitRegistersTheCommandsInOrderThenThePolicyThenStartsTheBase) {
    EXPECT_EQ(module->Init(), 0);
    EXPECT_THAT(RegistrationJournal(), ElementsAre("RegisterTasklet whitelist_10001", "RegisterTasklet whitelist_10002",
                                                   "RegisterTasklet whitelist_10003", "RegisterTasklet whitelist_10004",
                                                   "RegisterTasklet whitelist_10005", "RegisterPolicy 10001", "Init"));
    EXPECT_EQ(CommandKeys(), COMMAND_KEYS);
    EXPECT_THAT(module->ListPolicyKeys(), ElementsAre("10001"));
}

TEST_F(ModuleLife, InitLogsFirstAndFindsTheState) {
    root.Write("conf/modwhitelist.ini", "[Driver]\nLearnTime=12\n");
    EXPECT_EQ(module->Init(), 0);
    ASSERT_EQ(log.Records().size(), 1U);
    const TestSupport::LogRecorder::Record record = log.Records()[0];
    EXPECT_EQ(record.text, "init module whitelist");
    EXPECT_EQ(record.priority, Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(record.logger, "module_whitelist");
    EXPECT_EQ(record.file, "WhitelistModule.cpp");
    EXPECT_GT(record.line, 0);
    EXPECT_EQ(ConfigManager::Instance()->GetLearnedTime(), 12);
}

TEST_F(ModuleLife, InitMakesNoTask) {
    EXPECT_EQ(module->Init(), 0);
    EXPECT_THAT(module->GetRegisteredTasks(), IsEmpty());
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

TEST_F(ModuleLife, NoCommandIsALongAction) {
    EXPECT_EQ(module->Init(), 0);
    ASSERT_EQ(module->ListTasklets().size(), 5U);
    for (const auto& [key, callback] : module->ListTasklets()) {
        EXPECT_FALSE(callback->IsLongAction()) << key;
    }
}

TEST_F(ModuleLife, UnInitRemovesThePolicyThenTheCommandsInOrderThenStopsTheBase) {
    EXPECT_EQ(module->Init(), 0);
    RegistrationJournal().clear();
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_THAT(RegistrationJournal(),
                ElementsAre("UnRegisterPolicy 10001", "UnRegisterTasklet whitelist_10001",
                            "UnRegisterTasklet whitelist_10002", "UnRegisterTasklet whitelist_10003",
                            "UnRegisterTasklet whitelist_10004", "UnRegisterTasklet whitelist_10005", "UnInit"));
    EXPECT_THAT(CommandKeys(), IsEmpty());
    EXPECT_THAT(module->ListPolicyKeys(), IsEmpty());
    EXPECT_THAT(module->GetRunningTasks(), IsEmpty());
}

TEST_F(ModuleLife, UnInitLeavesTheStateAlone) {
    root.Write("conf/modwhitelist.ini", "[Driver]\nLearnTime=12\nLearnMod=1\n");
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_EQ(ConfigManager::Instance()->GetMod(), MOD_LEARN);
    EXPECT_EQ(root.Read("conf/modwhitelist.ini"), "[Driver]\nLearnTime=12\nLearnMod=1\n");
}

TEST_F(ModuleLife, ItsEndAloneUnregistersNothing) {
    EXPECT_EQ(module->Init(), 0);
    RegistrationJournal().clear();
    module = nullptr;
    EXPECT_THAT(RegistrationJournal(), IsEmpty());
}

TEST_F(ModuleLife, ItCanBeInitialisedAgain) {
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(CommandKeys(), COMMAND_KEYS);
}

TEST_F(ModuleLife, AStateFileThatCannotBeMadeIsLoggedAndStopsNothing) {
    std::filesystem::create_directory(root / "conf/modwhitelist.ini");
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Init whitelist Config Failed"), 1);
    EXPECT_EQ(RegistrationJournal().back(), "Init");
    EXPECT_EQ(CommandKeys(), COMMAND_KEYS);
    EXPECT_THAT(module->ListPolicyKeys(), ElementsAre("10001"));
}

TEST_F(ModuleLife, AMissingInstallationRootIsLoggedAndStopsNothing) {
    SDK::PathUtils::SetInstallationPath("");
    EXPECT_EQ(module->Init(), 0);
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[1].text, "get app root path error");
    EXPECT_EQ(records[2].text, "Init whitelist Config Failed");
    EXPECT_EQ(CommandKeys(), COMMAND_KEYS);
}

// A channel of the operator's making may throw.
class ThrowingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& /*message*/) override { throw std::runtime_error("the disk is full"); }
};

TEST_F(ModuleLife, ARecordThatCannotBeWrittenIsDropped) {
    Poco::Logger::setChannel("", Poco::AutoPtr<ThrowingChannel>(new ThrowingChannel));
    EXPECT_EQ(module->Init(), 0);
    EXPECT_EQ(CommandKeys(), COMMAND_KEYS);
    EXPECT_EQ(module->UnInit(), 0);
}

// ---- Names that every source file shares -----------------------------------------------------------

TEST(SharedConstants, AreWhatTheAgentKnows) {
    EXPECT_EQ(CONFIG_FILE, "conf/modwhitelist.ini");
    EXPECT_EQ(OS_PRESET_FILE, "conf/osPresetProcess.dat");
    EXPECT_EQ(SERVICE_PRESET_FILE, "conf/servicePresetProcess.dat");
    EXPECT_EQ(FILE_NOTIFY_MODULE_NAME, "filenotify");
    EXPECT_EQ(FILE_WATCH_TASK_NAME, "filewatch");
    EXPECT_EQ(NAMESPACE_NAMES, (std::set<std::string>{"ipc", "mnt", "net", "pid", "user", "uts"}));
}

TEST(SharedConstants, OfHttpAreWhatServersKnow) {
    using namespace SDK::Http;
    EXPECT_EQ(METHOD_GET, "GET");
    EXPECT_EQ(METHOD_POST, "POST");
    EXPECT_EQ(METHOD_PUT, "PUT");
    EXPECT_EQ(METHOD_DELETE, "DELETE");
    EXPECT_EQ(HEADER_CONTENT_TYPE, "Content-Type");
    EXPECT_EQ(HEADER_ACCEPT_TYPE, "Accept-Type");
    EXPECT_EQ(HEADER_AUTH_TOKEN, "X-Auth-Token");
    EXPECT_EQ(HEADER_AGENT_ID, "agent_id");
    EXPECT_EQ(CONTENT_TYPE_JSON, "application/json; charset=utf-8");
    EXPECT_EQ(CONTENT_TYPE_BINARY, "binary/octet-stream");
    EXPECT_EQ(SCHEME_HTTP, "http://");
    EXPECT_EQ(SCHEME_HTTPS, "https://");
}

} // namespace
