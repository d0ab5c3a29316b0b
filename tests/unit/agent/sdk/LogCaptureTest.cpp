#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "agent/sdk/LogCapture.h"
#include "agent/sdk/LogSetup.h"
#include "sdk/ModuleLog.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

using Poco::Message;
using SDK::LogCapture;
using TestSupport::LogRecorder;

namespace {

SDK::ModuleLog moduleLog("capture_test");

std::vector<std::string> TextsOf(const LogCapture& capture) {
    std::vector<std::string> texts;
    for (const LogCapture::Record& record : capture.Records()) {
        texts.push_back(record.text);
    }
    return texts;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(LogCapture, SeesErrorsAndWhatIsGraver) {
    const LogCapture capture;
    moduleLog.Error("first %d", 1);
    moduleLog.Warning("not this");
    moduleLog.Information("nor this");
    moduleLog.Fatal("second [%s]", "x");
    EXPECT_EQ(TextsOf(capture), (Texts{"first 1", "second [x]"}));
    EXPECT_EQ(capture.Records()[0].priority, Message::PRIO_ERROR);
    EXPECT_EQ(capture.Records()[1].priority, Message::PRIO_FATAL);
    EXPECT_EQ(capture.FirstText(), "first 1");
}

TEST(LogCapture, WithoutRecordsTheFirstTextIsEmpty) {
    const LogCapture capture;
    EXPECT_EQ(capture.FirstText(), "");
}

TEST(LogCapture, SeesOnlyItsOwnTime) {
    moduleLog.Error("before");
    Texts texts;
    {
        const LogCapture capture;
        moduleLog.Error("during");
        texts = TextsOf(capture);
    }
    moduleLog.Error("after");
    EXPECT_EQ(texts, Texts{"during"});
    const LogCapture next;
    EXPECT_TRUE(next.Records().empty());
}

TEST(LogCapture, SeesOnlyItsOwnThread) {
    const LogCapture capture;
    std::thread other([] {
        moduleLog.Error("other");
        const LogCapture inner;
        moduleLog.Error("other, captured");
        EXPECT_EQ(TextsOf(inner), Texts{"other, captured"});
    });
    other.join();
    moduleLog.Error("own");
    EXPECT_EQ(TextsOf(capture), Texts{"own"});
}

TEST(LogCapture, MayBeNested) {
    const LogCapture outer;
    moduleLog.Error("one");
    {
        const LogCapture inner;
        moduleLog.Error("two");
        EXPECT_EQ(TextsOf(inner), Texts{"two"});
    }
    moduleLog.Error("three");
    EXPECT_EQ(TextsOf(outer), (Texts{"one", "two", "three"}));
}

TEST(LogCapture, AndARecorderMadeBeforeItBothSeeTheRecord) {
    const LogRecorder recorder;
    const LogCapture capture;
    moduleLog.Error("both");
    EXPECT_TRUE(recorder.Has(Message::PRIO_ERROR, "both"));
    EXPECT_EQ(TextsOf(capture), Texts{"both"});
}

TEST(LogCapture, AndARecorderMadeAfterItBothSeeTheRecord) {
    const LogCapture capture;
    moduleLog.Error("before");
    const LogRecorder recorder;
    moduleLog.Error("both");
    EXPECT_EQ(recorder.Count(Message::PRIO_ERROR, "both"), 1);
    EXPECT_EQ(TextsOf(capture), (Texts{"before", "both"}));
}

TEST(LogCapture, WorksWithTheAgentsLogSetUp) {
    const TestSupport::TempDir dir;
    SDK::LogSettings settings;
    settings.filePath = dir / "agent.log";
    ASSERT_EQ(SDK::SetUpLogging(settings), 0);
    const LogCapture capture;
    moduleLog.Error("both");
    EXPECT_EQ(TextsOf(capture), Texts{"both"});
    EXPECT_NE(dir.Read("agent.log").find("both"), std::string::npos);
}
