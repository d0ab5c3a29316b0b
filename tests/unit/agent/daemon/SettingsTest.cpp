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
}

TEST_F(SettingsTest, AnEmptyObjectGivesTheDefaults) {
    EXPECT_EQ(Accepted("{}").logLevel, "information");
}

TEST_F(SettingsTest, EveryMemberIsTakenOver) {
    const Settings settings = Accepted(
        R"({"scope":{"cgroup":"/a/b"},"cpu_budget_percent":25,
            "log":{"level":"debug","max_bytes":65536,"files":2,"console":true}})");

    EXPECT_EQ(settings.cgroup, "/a/b");
    EXPECT_EQ(settings.cpuBudgetPercent, 25);
    EXPECT_EQ(settings.logLevel, "debug");
    EXPECT_EQ(settings.logMaxBytes, 65536U);
    EXPECT_EQ(settings.logFiles, 2);
    EXPECT_TRUE(settings.logConsole);
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
