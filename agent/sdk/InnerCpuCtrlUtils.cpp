#include "sdk/InnerCpuCtrlUtils.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "agent/sdk/CpuGovernor.h"
#include "sdk/ModuleLog.h"
#include "sdk/RwLock.h"
#include "sdk/TimeUtils.h"

namespace SDK {

namespace {

using Clock = std::chrono::steady_clock;

ModuleLog moduleLog("sdk");

constexpr unsigned long SUGGESTED_RUN_TICKS = 10000;
constexpr std::int64_t MAX_SLEEP_US = 1000000;

// A debt that would take longer than this to sleep off is forgotten: what threads that never ask to
// be slowed down have used must not paralyse those that do for long.
constexpr std::int64_t MAX_DEBT_SLEEP_US = 10 * MAX_SLEEP_US;

// The account of the process's CPU time.
//
//   every tick used           raises the debt by one
//   every microsecond passed  lowers it by the budget
//
// It never falls below zero: idle time is no credit for a later burst. The process is within its
// budget while the debt is zero, and sleeping off the debt brings it there.
struct Account {
    RwLock lock;
    int percent GUARDED_BY(lock) = 0;
    std::int64_t debtTicks GUARDED_BY(lock) = 0;
    std::int64_t lastTick GUARDED_BY(lock) = 0;
    Clock::time_point lastTime GUARDED_BY(lock);
};

Account account;

// Apart from the account, so that a governor that is off costs one read.
std::atomic<bool> enabled{false};

void CountUpToNow() REQUIRES(account.lock) {
    const auto tick = static_cast<std::int64_t>(TimeUtils::GetCurrentSystemTickUsed());
    const Clock::time_point time = Clock::now();
    const std::int64_t passedUs =
        std::chrono::duration_cast<std::chrono::microseconds>(time - account.lastTime).count();
    account.debtTicks += tick - account.lastTick - passedUs * account.percent / 100;
    account.debtTicks = std::clamp<std::int64_t>(account.debtTicks, 0, MAX_DEBT_SLEEP_US * account.percent / 100);
    account.lastTick = tick;
    account.lastTime = time;
}

// How long the process would have to stand still until `elapsed` ticks, at most the debt, are paid.
std::int64_t SleepFor(unsigned long elapsed) {
    const WriteGuard guard(account.lock);
    if (account.percent <= 0) {
        return 0;
    }
    CountUpToNow();
    const auto maxTicks = static_cast<std::int64_t>(std::min<unsigned long>(elapsed, INT32_MAX));
    return std::min(std::min(account.debtTicks, maxTicks) * 100 / account.percent, MAX_SLEEP_US);
}

} // namespace

void SetCpuBudgetPercent(int percentOfOneCore) {
    const WriteGuard guard(account.lock);
    account.percent = std::max(percentOfOneCore, 0);
    account.debtTicks = 0;
    account.lastTick = static_cast<std::int64_t>(TimeUtils::GetCurrentSystemTickUsed());
    account.lastTime = Clock::now();
    enabled.store(account.percent > 0, std::memory_order_relaxed);
}

bool InnerCpuCtrlUtils::IsEnabled() {
    return enabled.load(std::memory_order_relaxed);
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return SUGGESTED_RUN_TICKS;
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* who, unsigned long now,
                                        unsigned long elapsed) {
    const std::int64_t sleepUs = SleepFor(elapsed);
    if (sleepUs <= 0) {
        return;
    }
    moduleLog.Trace("[%s] at %s:%d has used %?d of %?d us, sleeps %?d us.", who, file, line, elapsed, now, sleepUs);
    std::this_thread::sleep_for(std::chrono::microseconds(sleepUs));
}

} // namespace SDK
