#include "modules/ProcsMessage.h"

#include <utility>

#include "framework/Counters.h"
#include "modules/AbstractMessageReceiver.h"

namespace Engine {

ProcsMessage::ProcsMessage(int pid, unsigned int kind, std::shared_ptr<procInfo> info, StillDue stillDue)
    : mPid(pid), mKind(kind), mInfo(std::move(info)), mStillDue(std::move(stillDue)) {}

void ProcsMessage::DeliverTo(AbstractMessageReceiver& receiver) const {
    static Framework::Counter& judged = Framework::Counters::Of("events.judged");
    static Framework::Counter& folded = Framework::Counters::Of("events.folded");
    if (mStillDue && !mStillDue()) {
        folded.Add();
        return;
    }
    receiver.ProcsMessageAction(mPid, mKind, mInfo);
    if (mKind == KIND_EXEC || mKind == KIND_FORK) {
        judged.Add();
    }
}

} // namespace Engine
