#include "modules/FileNotifyMessage.h"

#include <gtest/gtest.h>

#include "framework/Counters.h"
#include "modules/AbstractMessageReceiver.h"

using Engine::FileNotifyMessage;
using Framework::Counters;

namespace {

std::uint64_t Judged() {
    return Counters::Of("files.judged").Get();
}

class Receiver : public Engine::AbstractMessageReceiver {
public:
    int FileNotifyMessageAction(const FileNotifyMessage* message) override {
        received.push_back(message);
        judgedBefore = Judged();
        return -1;
    }

    std::vector<const FileNotifyMessage*> received;
    std::uint64_t judgedBefore = 0;
};

} // namespace

TEST(FileNotifyMessage, HoldsProcessAndPath) {
    const FileNotifyMessage message(12, "/a/x (deleted)");
    EXPECT_EQ(message.GetEventProcessId(), 12);
    EXPECT_EQ(message.GetEventFilePath(), "/a/x (deleted)");
}

TEST(FileNotifyMessage, IsDeliveredItself) {
    Receiver receiver;
    const FileNotifyMessage message(12, "/a/x");
    message.DeliverTo(receiver);
    ASSERT_EQ(receiver.received.size(), 1U);
    EXPECT_EQ(receiver.received[0], &message);
}

TEST(FileNotifyMessage, CountsAsJudgedAfterItWasHandedOn) {
    Receiver receiver;
    const std::uint64_t before = Judged();
    FileNotifyMessage(12, "/a/x").DeliverTo(receiver);
    EXPECT_EQ(receiver.judgedBefore, before);
    EXPECT_EQ(Judged(), before + 1);
    FileNotifyMessage(12, "/a/x").DeliverTo(receiver);
    EXPECT_EQ(receiver.judgedBefore, before + 1);
    EXPECT_EQ(Judged(), before + 2);
}

TEST(FileNotifyMessage, AReceiverWithoutInterestIgnoresIt) {
    Engine::AbstractMessageReceiver receiver;
    EXPECT_EQ(receiver.FileNotifyMessageAction(nullptr), -1);
    const std::uint64_t before = Judged();
    FileNotifyMessage(12, "/a/x").DeliverTo(receiver);
    EXPECT_EQ(Judged(), before + 1);
}
