#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "framework/Message.h"

namespace Engine {

// One process event from the process-collection module to a task that subscribed to its kind.
//
//   kind                     info
//   1  image executed        pid, ppid
//   2  forked                pid of the child, ppid its parent
//   3  exited                empty
//
// Events of one process arrive in the order in which they happened. A fork that is followed at once
// by an exec of the child arrives as the exec alone. After events were lost the exit of a process that is gone may
// arrive before its exec, which was still to be read; then it arrives once more behind it.
class ProcsMessage : public Framework::Message {
public:
    enum Kind : unsigned int { KIND_EXEC = 1, KIND_FORK = 2, KIND_EXIT = 3 };

    // A process as the table of running processes knows it. An event's record has pid and ppid only.
    struct procInfo {
        std::int32_t pid = 0;
        std::int32_t ppid = 0;
        std::string path;    // the executable image
        std::string name;    // the image's file name
        std::string cmdline; // arguments joined with blanks, at most 4096 bytes
    };

    // Asked once, on the receiving thread just before delivery: false drops the event because a later
    // one covers it.
    using StillDue = std::function<bool()>;

    // Called on the receiving thread when the handling of an exec or fork met a shortage (SDK::Shortage), so that
    // the process may have gone unjudged.
    using Starved = std::function<void()>;

    // `timestampNs` is when the kernel saw it happen (CLOCK_MONOTONIC); 0 for what was found out later.
    ProcsMessage(int pid, unsigned int kind, std::shared_ptr<procInfo> info, StillDue stillDue = nullptr,
                 std::uint64_t timestampNs = 0, Starved starved = nullptr);

    int GetPid() const { return mPid; }
    unsigned int GetKind() const { return mKind; }
    const std::shared_ptr<procInfo>& GetInfo() const { return mInfo; }
    std::uint64_t GetTimestampNs() const { return mTimestampNs; }

    // Hands the event to ProcsMessageAction, as a Framework::HandledEvent. An exec or fork counts as
    // "events.judged" afterwards; the time from its happening to then, where known, goes to the histogram
    // "verdict.exec" or "verdict.fork". One whose handling met a shortage counts as "events.starved" instead.
    void DeliverTo(AbstractMessageReceiver& receiver) const override;

private:
    const int mPid;
    const unsigned int mKind;
    const std::shared_ptr<procInfo> mInfo;
    const StillDue mStillDue;
    const std::uint64_t mTimestampNs;
    const Starved mStarved;

    bool HandTo(AbstractMessageReceiver& receiver) const;
    void Starve() const;
};

} // namespace Engine
