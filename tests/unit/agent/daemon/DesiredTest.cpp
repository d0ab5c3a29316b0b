#include "agent/daemon/Desired.h"

#include <gtest/gtest.h>

#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using Daemon::Desired;

class DesiredTest : public testing::Test {
protected:
    TestSupport::LogRecorder log;
    TestSupport::TempDir folder;
    const std::string path = folder / "desired.json";
};

TEST_F(DesiredTest, NothingIsWishedWithoutAFile) {
    EXPECT_FALSE(Desired(path).IsDetectionWished());
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 0);
}

TEST_F(DesiredTest, TheWishIsThereForTheNextOne) {
    Desired(path).WishDetection(true);
    EXPECT_EQ(folder.Read("desired.json"), "{\"detect\":true}\n");
    EXPECT_TRUE(Desired(path).IsDetectionWished());

    Desired(path).WishDetection(false);
    EXPECT_EQ(folder.Read("desired.json"), "{\"detect\":false}\n");
    EXPECT_FALSE(Desired(path).IsDetectionWished());
}

TEST_F(DesiredTest, AFileThatCannotBeUnderstoodIsNoWishAndIsLogged) {
    for (const char* text : {"", "true", "{}", R"({"detect":1})", R"({"detect":true)", "[true]"}) {
        log.Clear();
        folder.Write("desired.json", text);
        EXPECT_FALSE(Desired(path).IsDetectionWished()) << text;
        EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1) << text;
    }
}

TEST_F(DesiredTest, AWishThatCannotBeWrittenHoldsAndIsLogged) {
    Desired desired(folder / "none/desired.json");
    desired.WishDetection(true);

    EXPECT_TRUE(desired.IsDetectionWished());
    EXPECT_EQ(log.CountAt(Poco::Message::PRIO_ERROR), 1);
}

} // namespace
