#include "agent/daemon/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempRoot.h"

namespace {

using Daemon::Settings;
using testing::EndsWith;

class SettingsTest : public testing::Test {
protected:
    Settings Accepted(const std::string& text) {
        Settings settings;
        std::string reason;
        EXPECT_TRUE(Settings::Load(folder.Write("agent.json", text), settings, reason)) << reason;
        return settings;
    }

    std::string Refused(const std::string& text) {
        Settings settings;
        settings.cgroup = "/untouched";
        std::string reason;
        EXPECT_FALSE(Settings::Load(folder.Write("agent.json", text), settings, reason)) << text;
        EXPECT_EQ(settings.cgroup, "/untouched");
        return reason;
    }

    TestSupport::TempDir folder;
};

TEST_F(SettingsTest, AMissingFileGivesTheDefaults) {
    Settings settings;
    std::string reason;

    EXPECT_TRUE(Settings::Load(folder / "agent.json", settings, reason));
    EXPECT_EQ(settings.cgroup, "");
    EXPECT_EQ(settings.cpuBudgetPercent, 0);
    EXPECT_EQ(settings.logLevel, "information");
    EXPECT_EQ(settings.logMaxBytes, 10485760U);
    EXPECT_EQ(settings.logFiles, 5);
    EXPECT_FALSE(settings.logConsole);
    EXPECT_EQ(settings.logTarget, SDK::LogTarget::AUTO);
    EXPECT_EQ(settings.metricsPort, 0);
}

TEST_F(SettingsTest, AnEmptyObjectGivesTheDefaults) {
    EXPECT_EQ(Accepted("{}").logLevel, "information");
}

TEST_F(SettingsTest, EveryMemberIsTakenOver) {
    const Settings settings = Accepted(
        R"({"scope":{"cgroup":"/a/b"},"cpu_budget_percent":25,
            "log":{"level":"debug","max_bytes":65536,"files":2,"console":true,"target":"journal"},
            "metrics":{"address":"127.1.2.3","port":9100}})");

    EXPECT_EQ(settings.cgroup, "/a/b");
    EXPECT_EQ(settings.cpuBudgetPercent, 25);
    EXPECT_EQ(settings.logLevel, "debug");
    EXPECT_EQ(settings.logMaxBytes, 65536U);
    EXPECT_EQ(settings.logFiles, 2);
    EXPECT_TRUE(settings.logConsole);
    EXPECT_EQ(settings.logTarget, SDK::LogTarget::JOURNAL);
    EXPECT_EQ(settings.metricsAddress, "127.1.2.3");
    EXPECT_EQ(settings.metricsPort, 9100);
}

TEST_F(SettingsTest, MetricsAreServedToThisMachineAlone) {
    EXPECT_EQ(Accepted(R"({"metrics":{"port":1}})").metricsAddress, "127.0.0.1");
    EXPECT_EQ(Accepted(R"({"metrics":{"port":65535,"address":"::1"}})").metricsAddress, "::1");
    for (const char* address :
         {"0.0.0.0", "::", "192.168.0.1", "128.0.0.1", "localhost", "", "127.0.0.1:80", "::ffff:127.0.0.1"}) {
        EXPECT_THAT(Refused(R"({"metrics":{"port":9100,"address":")" + std::string(address) + R"("}})"),
                    EndsWith("\"metrics.address\" has to be a loopback address: 127.0.0.1, another one of 127.0.0.0/8, "
                             "or ::1"))
            << address;
    }
    for (const char* port : {"0", "65536", "-1", "\"9100\"", "null"}) {
        EXPECT_THAT(Refused(R"({"metrics":{"port":)" + std::string(port) + "}}"),
                    EndsWith("\"metrics.port\" has to be a whole number from 1 to 65535"))
            << port;
    }
    EXPECT_THAT(Refused(R"({"metrics":{}})"), EndsWith("\"metrics\" has to be an object with a \"port\""));
    EXPECT_THAT(Refused(R"({"metrics":9100})"), EndsWith("\"metrics\" has to be an object"));
}

TEST_F(SettingsTest, AnUnknownMemberIsRefusedByName) {
    EXPECT_THAT(Refused(R"({"scop":{}})"), EndsWith("agent.json: unknown member \"scop\""));
    EXPECT_THAT(Refused(R"({"log":{"levle":"debug"}})"), EndsWith("unknown member \"log.levle\""));
    EXPECT_THAT(Refused(R"({"scope":{"cgroups":["/a"]}})"), EndsWith("unknown member \"scope.cgroups\""));
}

TEST_F(SettingsTest, AWrongTypeOrValueIsRefusedByName) {
    EXPECT_THAT(Refused(R"({"scope":"/a"})"), EndsWith("\"scope\" has to be an object"));
    EXPECT_THAT(Refused(R"({"scope":{"cgroup":1}})"),
                EndsWith("\"scope.cgroup\" has to be the path of a control group, beginning with \"/\""));
    EXPECT_THAT(Refused(R"({"scope":{"cgroup":"a"}})"),
                EndsWith("\"scope.cgroup\" has to be the path of a control group, beginning with \"/\""));
    EXPECT_THAT(Refused(R"({"cpu_budget_percent":-1})"),
                EndsWith("\"cpu_budget_percent\" has to be a whole number from 0 to 1000000"));
    EXPECT_THAT(Refused(R"({"cpu_budget_percent":"50"})"),
                EndsWith("\"cpu_budget_percent\" has to be a whole number from 0 to 1000000"));
    EXPECT_THAT(Refused(R"({"cpu_budget_percent":1.5})"),
                EndsWith("\"cpu_budget_percent\" has to be a whole number from 0 to 1000000"));
    EXPECT_THAT(Refused(R"({"log":[]})"), EndsWith("\"log\" has to be an object"));
    EXPECT_THAT(Refused(R"({"log":{"level":"loud"}})"),
                EndsWith("\"log.level\" has to be one of fatal, critical, error, warning, notice, information, debug, "
                         "trace"));
    EXPECT_THAT(Refused(R"({"log":{"files":0}})"), EndsWith("\"log.files\" has to be a whole number from 1 to 1000"));
    EXPECT_THAT(Refused(R"({"log":{"max_bytes":1}})"),
                EndsWith("\"log.max_bytes\" has to be a whole number from 4096 to 9223372036854775807"));
    EXPECT_THAT(Refused(R"({"log":{"target":"syslog"}})"),
                EndsWith("\"log.target\" has to be one of auto, file, journal"));
    EXPECT_THAT(Refused(R"({"log":{"target":1}})"), EndsWith("\"log.target\" has to be one of auto, file, journal"));
    EXPECT_THAT(Refused(R"({"log":{"console":"yes"}})"), EndsWith("\"log.console\" has to be true or false"));
}

TEST_F(SettingsTest, WhatIsNoJsonObjectIsRefused) {
    EXPECT_THAT(Refused(""), EndsWith("agent.json: not a JSON object"));
    EXPECT_THAT(Refused("[]"), EndsWith("agent.json: not a JSON object"));
    EXPECT_THAT(Refused("{} trailing"), EndsWith("agent.json: not a JSON object"));
}

TEST_F(SettingsTest, AFolderInPlaceOfTheFileIsRefused) {
    Settings settings;
    std::string reason;

    EXPECT_FALSE(Settings::Load(folder.Path(), settings, reason));
    EXPECT_THAT(reason, EndsWith("Is a directory"));
}

} // namespace
