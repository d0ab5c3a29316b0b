#include "modules/ProcsMessage.h"

#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "framework/Counters.h"
#include "framework/HandledEvent.h"
#include "modules/AbstractMessageReceiver.h"
#include "sdk/Histogram.h"
#include "sdk/TimeUtils.h"

using Engine::ProcsMessage;
using Framework::Counters;
using Framework::HandledEvent;

namespace {

class Receiver : public Engine::AbstractMessageReceiver {
public:
    struct Event {
        int pid;
        unsigned int kind;
        std::shared_ptr<ProcsMessage::procInfo> info;
        std::uint64_t judgedBefore;
        std::uint64_t handledNs;
    };

    void ProcsMessageAction(int pid, unsigned int kind, std::shared_ptr<ProcsMessage::procInfo> info) override {
        events.push_back({pid, kind, info, Counters::Of("events.judged").Get(), HandledEvent::GetTimestampNs()});
    }

    std::vector<Event> events;
};

std::shared_ptr<ProcsMessage::procInfo> MakeInfo(int pid, int ppid) {
    auto info = std::make_shared<ProcsMessage::procInfo>();
    info->pid = pid;
    info->ppid = ppid;
    return info;
}

std::uint64_t Judged() {
    return Counters::Of("events.judged").Get();
}
std::uint64_t Folded() {
    return Counters::Of("events.folded").Get();
}

std::uint64_t Timed(const char* histogram) {
    return SDK::Histograms::Of(histogram).Read().count;
}

} // namespace

TEST(ProcsMessage, DeliversPidKindAndRecord) {
    Receiver receiver;
    const auto info = MakeInfo(12, 7);
    ProcsMessage(12, ProcsMessage::KIND_EXEC, info).DeliverTo(receiver);
    ASSERT_EQ(receiver.events.size(), 1U);
    EXPECT_EQ(receiver.events[0].pid, 12);
    EXPECT_EQ(receiver.events[0].kind, 1U);
    EXPECT_EQ(receiver.events[0].info, info);
}

TEST(ProcsMessage, AnExitHasNoRecord) {
    Receiver receiver;
    ProcsMessage(12, ProcsMessage::KIND_EXIT, nullptr).DeliverTo(receiver);
    ASSERT_EQ(receiver.events.size(), 1U);
    EXPECT_EQ(receiver.events[0].kind, 3U);
    EXPECT_EQ(receiver.events[0].info, nullptr);
}

TEST(ProcsMessage, ExecsAndForksCountAsJudgedAfterTheyWereHandedOn) {
    Receiver receiver;
    const std::uint64_t before = Judged();
    ProcsMessage(1, ProcsMessage::KIND_EXEC, MakeInfo(1, 0)).DeliverTo(receiver);
    EXPECT_EQ(receiver.events[0].judgedBefore, before);
    EXPECT_EQ(Judged(), before + 1);
    ProcsMessage(2, ProcsMessage::KIND_FORK, MakeInfo(2, 1)).DeliverTo(receiver);
    EXPECT_EQ(Judged(), before + 2);
    ProcsMessage(2, ProcsMessage::KIND_EXIT, nullptr).DeliverTo(receiver);
    EXPECT_EQ(Judged(), before + 2);
}

TEST(ProcsMessage, AnEventThatIsStillDueIsDelivered) {
    Receiver receiver;
    int asked = 0;
    const ProcsMessage message(5, ProcsMessage::KIND_FORK, MakeInfo(5, 1), [&] {
        ++asked;
        return true;
    });
    EXPECT_EQ(asked, 0);
    message.DeliverTo(receiver);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(receiver.events.size(), 1U);
}

TEST(ProcsMessage, AnEventThatIsNoLongerDueIsDroppedAndCounted) {
    Receiver receiver;
    const std::uint64_t judgedBefore = Judged();
    const std::uint64_t foldedBefore = Folded();
    ProcsMessage(5, ProcsMessage::KIND_FORK, MakeInfo(5, 1), [] { return false; }).DeliverTo(receiver);
    EXPECT_TRUE(receiver.events.empty());
    EXPECT_EQ(Judged(), judgedBefore);
    EXPECT_EQ(Folded(), foldedBefore + 1);
}

TEST(ProcsMessage, AReceiverWithoutInterestIgnoresIt) {
    Engine::AbstractMessageReceiver receiver;
    const std::uint64_t before = Judged();
    ProcsMessage(5, ProcsMessage::KIND_EXEC, MakeInfo(5, 1)).DeliverTo(receiver);
    EXPECT_EQ(Judged(), before + 1);
}

TEST(ProcsMessage, WhoActsOnItLearnsWhenItHappened) {
    Receiver receiver;
    ProcsMessage(5, ProcsMessage::KIND_EXEC, MakeInfo(5, 1), nullptr, 4711).DeliverTo(receiver);
    ASSERT_EQ(receiver.events.size(), 1U);
    EXPECT_EQ(receiver.events[0].handledNs, 4711U);
    EXPECT_EQ(HandledEvent::GetTimestampNs(), 0U);
}

TEST(ProcsMessage, TheTimeToItsVerdictIsRecordedByKind) {
    Receiver receiver;
    const std::uint64_t execs = Timed("verdict.exec");
    const std::uint64_t forks = Timed("verdict.fork");
    const std::uint64_t nowNs = SDK::TimeUtils::GetMonotonicNs();
    ProcsMessage(5, ProcsMessage::KIND_EXEC, MakeInfo(5, 1), nullptr, nowNs).DeliverTo(receiver);
    EXPECT_EQ(Timed("verdict.exec"), execs + 1);
    EXPECT_EQ(Timed("verdict.fork"), forks);
    ProcsMessage(5, ProcsMessage::KIND_FORK, MakeInfo(5, 1), nullptr, nowNs).DeliverTo(receiver);
    EXPECT_EQ(Timed("verdict.fork"), forks + 1);
    ProcsMessage(5, ProcsMessage::KIND_EXIT, nullptr, nullptr, nowNs).DeliverTo(receiver);
    EXPECT_EQ(Timed("verdict.exec") + Timed("verdict.fork"), execs + forks + 2);
}

TEST(ProcsMessage, AProcessThatWasFoundLaterHasNoTimeToItsVerdict) {
    Receiver receiver;
    const std::uint64_t execs = Timed("verdict.exec");
    ProcsMessage(5, ProcsMessage::KIND_EXEC, MakeInfo(5, 1)).DeliverTo(receiver);
    EXPECT_EQ(Timed("verdict.exec"), execs);
}

TEST(HandledEvent, TheInnermostCountsAndOtherThreadsSeeNone) {
    const HandledEvent outer(1);
    {
        const HandledEvent inner(2);
        EXPECT_EQ(HandledEvent::GetTimestampNs(), 2U);
        std::thread([] { EXPECT_EQ(HandledEvent::GetTimestampNs(), 0U); }).join();
    }
    EXPECT_EQ(HandledEvent::GetTimestampNs(), 1U);
}
