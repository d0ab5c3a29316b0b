#include "modules/ProcsMessage.h"

#include <cerrno>
#include <new>
#include <utility>

#include "framework/Counters.h"
#include "framework/HandledEvent.h"
#include "modules/AbstractMessageReceiver.h"
#include "sdk/Histogram.h"
#include "sdk/Shortage.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// The time first, so that whoever sees an event counted sees its time.
void CountJudged(unsigned int kind, std::uint64_t timestampNs) {
    static Framework::Counter& judged = Framework::Counters::Of("events.judged");
    static SDK::Histogram& execs = SDK::Histograms::Of("verdict.exec");
    static SDK::Histogram& forks = SDK::Histograms::Of("verdict.fork");
    if (timestampNs != 0) {
        (kind == ProcsMessage::KIND_EXEC ? execs : forks).Record(SDK::TimeUtils::GetNsSince(timestampNs));
    }
    judged.Add();
}

} // namespace

ProcsMessage::ProcsMessage(int pid, unsigned int kind, std::shared_ptr<procInfo> info, StillDue stillDue,
                           std::uint64_t timestampNs, Starved starved)
    : mPid(pid), mKind(kind), mInfo(std::move(info)), mStillDue(std::move(stillDue)), mTimestampNs(timestampNs),
      mStarved(std::move(starved)) {}

void ProcsMessage::DeliverTo(AbstractMessageReceiver& receiver) const {
    static Framework::Counter& folded = Framework::Counters::Of("events.folded");
    if (mStillDue && !mStillDue()) {
        folded.Add();
        return;
    }
    if (mKind == KIND_EXIT) {
        // Nobody acts on a process that has ended.
        const Framework::HandledEvent handled(mTimestampNs);
        receiver.ProcsMessageAction(mPid, mKind, mInfo);
    } else if (HandTo(receiver)) {
        CountJudged(mKind, mTimestampNs);
    } else {
        Starve();
    }
}

// False when there was not enough of everything to look at the process.
bool ProcsMessage::HandTo(AbstractMessageReceiver& receiver) const {
    const std::uint64_t shortagesBefore = SDK::Shortage::CountOfThread();
    try {
        const Framework::HandledEvent handled(mTimestampNs, mPid);
        receiver.ProcsMessageAction(mPid, mKind, mInfo);
    } catch (const std::bad_alloc&) {
        SDK::Shortage::Note(ENOMEM);
    }
    return SDK::Shortage::CountOfThread() == shortagesBefore;
}

void ProcsMessage::Starve() const {
    // First: counting may take memory.
    if (mStarved) {
        mStarved();
    }
    static Framework::Counter& starved = Framework::Counters::Of("events.starved");
    starved.Add();
}

} // namespace Engine
