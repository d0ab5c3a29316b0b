#pragma once

#include <atomic>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace SDK {

// The CPU throttle of one long loop. The loop calls Check once an iteration:
//
//     static SDK::CpuThrottle throttle("module_whitelist/src/ProcessManager", "whitelist_module");
//     for (…) { throttle.Check(); … }
//
// CPU use accumulates over calls until it exceeds the governor's suggestion; only then is the thread
// asked to slow down. With the governor off a call reads one flag and nothing else. Several threads
// may share a throttle: they race only for when the next adjustment happens.
class CpuThrottle {
public:
    constexpr CpuThrottle(const char* file, const char* who) : mFile(file), mWho(who) {}

    void Check(int line = __builtin_LINE()) {
        if (!InnerCpuCtrlUtils::IsEnabled()) {
            return;
        }
        const unsigned long now = TimeUtils::GetCurrentSystemTickUsed();
        const unsigned long last = mLastTick.load(std::memory_order_relaxed);
        const unsigned long elapsed = now > last ? now - last : last - now;
        if (elapsed > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
            InnerCpuCtrlUtils::AdjustThreadCpu(mFile, line, mWho, now, elapsed);
            mLastTick.store(now, std::memory_order_relaxed);
        }
    }

private:
    const char* mFile;
    const char* mWho;
    std::atomic<unsigned long> mLastTick{0};
};

} // namespace SDK
