#include "modules/ProcsMessage.h"

#include <utility>

#include "framework/Counters.h"
#include "framework/HandledEvent.h"
#include "modules/AbstractMessageReceiver.h"
#include "sdk/Histogram.h"
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
                           std::uint64_t timestampNs)
    : mPid(pid), mKind(kind), mInfo(std::move(info)), mStillDue(std::move(stillDue)), mTimestampNs(timestampNs) {}

void ProcsMessage::DeliverTo(AbstractMessageReceiver& receiver) const {
    static Framework::Counter& folded = Framework::Counters::Of("events.folded");
    if (mStillDue && !mStillDue()) {
        folded.Add();
        return;
    }
    {
        // Of an exit nobody acts on a process.
        const Framework::HandledEvent handled(mTimestampNs, mKind == KIND_EXIT ? 0 : mPid);
        receiver.ProcsMessageAction(mPid, mKind, mInfo);
    }
    if (mKind == KIND_EXEC || mKind == KIND_FORK) {
        CountJudged(mKind, mTimestampNs);
    }
}

} // namespace Engine
