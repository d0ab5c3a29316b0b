#include "agent/data_comm/AlertLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"

namespace {

using Engine::FormatAlertLine;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

Json::Value MakeAlert() {
    Json::Value alert;
    alert["event_id"] = "0b9e3c1e-0000-4000-8000-000000000001";
    Json::Value& process = alert["process_info"];
    process["process_path"] = "/opt/tool";
    process["process_pid"] = 123;
    process["process_uid"] = 1000;
    process["process_username"] = "joe";
    process["process_hash"] = "ab12";
    process["process_cmdline"] = "/opt/tool -x 1";
    process["block"] = 0;
    return alert;
}

std::string LineOf(const Json::Value& alert) {
    return FormatAlertLine(SDK::JsonUtils::JsonToString(alert));
}

TEST(AlertLineTest, AnAlertIsOneLineThatSaysWhoWhatAndWhether) {
    Json::Value alert = MakeAlert();
    EXPECT_EQ(LineOf(alert), "ALERT untrusted program /opt/tool pid 123 user joe sha256 ab12 not blocked event "
                             "0b9e3c1e-0000-4000-8000-000000000001 cmdline /opt/tool -x 1");
    alert["process_info"]["block"] = 1;
    EXPECT_THAT(LineOf(alert), HasSubstr(" sha256 ab12 blocked event 0b9e"));
}

TEST(AlertLineTest, WithoutAUserNameTheIdIsNamed) {
    Json::Value alert = MakeAlert();
    alert["process_info"]["process_username"] = "";
    EXPECT_THAT(LineOf(alert), HasSubstr(" user 1000 "));
}

TEST(AlertLineTest, WhatTheAlertDoesNotSayIsADash) {
    EXPECT_EQ(FormatAlertLine(R"({"process_info":{}})"),
              "ALERT untrusted program - pid - user - sha256 - not blocked event - cmdline -");
    EXPECT_EQ(FormatAlertLine(R"({"process_info":{"process_path":5,"process_pid":"x"}})"),
              "ALERT untrusted program - pid - user - sha256 - not blocked event - cmdline -");
}

TEST(AlertLineTest, ADocumentThatIsNoAlertIsALineToo) {
    EXPECT_EQ(FormatAlertLine("{"), "ALERT whose document cannot be read, 1 bytes");
    EXPECT_EQ(FormatAlertLine("[]"), "ALERT whose document cannot be read, 2 bytes");
    EXPECT_EQ(FormatAlertLine(R"({"process_info":7})"), "ALERT whose document cannot be read, 18 bytes");
}

TEST(AlertLineTest, NobodyWhoNamesAFileCanWriteAWordOfTheLine) {
    Json::Value alert = MakeAlert();
    alert["process_info"]["process_path"] = "/opt/a\" pid 1 user root";
    alert["process_info"]["process_username"] = "j pid 1";
    alert["process_info"]["process_cmdline"] = "a \"b\" c";
    EXPECT_THAT(LineOf(alert), StartsWith("ALERT untrusted program \"/opt/a\"\" pid 1 user root\" pid 123 user "
                                          "\"j pid 1\" sha256 ab12 "));
    EXPECT_THAT(LineOf(alert), EndsWith("cmdline a \"b\" c"));
}

TEST(AlertLineTest, ALongCommandLineIsCut) {
    Json::Value alert = MakeAlert();
    alert["process_info"]["process_cmdline"] = std::string(Engine::MAX_CMDLINE_BYTES, 'x');
    EXPECT_THAT(LineOf(alert), EndsWith("cmdline " + std::string(Engine::MAX_CMDLINE_BYTES, 'x')));
    alert["process_info"]["process_cmdline"] = std::string(Engine::MAX_CMDLINE_BYTES, 'x') + "yz";
    EXPECT_THAT(LineOf(alert), EndsWith("x..."));
    EXPECT_THAT(LineOf(alert), Not(HasSubstr("xy")));
}

} // namespace
