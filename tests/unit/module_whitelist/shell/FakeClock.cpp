#include "FakeClock.h"

#include <atomic>

#include "sdk/TimeUtils.h"

namespace ShellTest {

namespace {

std::atomic<std::int64_t> now{1700000000};

} // namespace

void FakeClock::Set(std::int64_t seconds) {
    now.store(seconds);
}

void FakeClock::Advance(std::int64_t seconds) {
    now.fetch_add(seconds);
}

std::int64_t FakeClock::Now() {
    return now.load();
}

} // namespace ShellTest

std::int64_t SDK::TimeUtils::GetCurrentTimestampS() {
    return ShellTest::FakeClock::Now();
}
