#include "FakeGovernor.h"

#include <atomic>
#include <mutex>

#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/TimeUtils.h"

namespace ShellTest {

namespace {

std::atomic<bool> enabled{false};
std::atomic<unsigned long> suggestion{0};
std::atomic<unsigned long> currentTick{0};
std::atomic<unsigned long> reads{0};

struct Record {
    std::mutex mutex;
    std::vector<FakeGovernor::Adjustment> adjustments;
};

// Never destroyed: threads may still be asked to slow down while the program ends.
Record& GetRecord() {
    static auto* const record = new Record;
    return *record;
}

} // namespace

void FakeGovernor::Enable(unsigned long suggestedTicks) {
    suggestion.store(suggestedTicks);
    enabled.store(true);
}

void FakeGovernor::SetTick(unsigned long tick) {
    currentTick.store(tick);
}

unsigned long FakeGovernor::CountReads() {
    return reads.load();
}

std::vector<FakeGovernor::Adjustment> FakeGovernor::AllAdjustments() {
    const std::lock_guard<std::mutex> guard(GetRecord().mutex);
    return GetRecord().adjustments;
}

std::vector<FakeGovernor::Adjustment> FakeGovernor::AdjustmentsAt(const std::string& file, int line) {
    std::vector<Adjustment> adjustments = AllAdjustments();
    std::erase_if(adjustments, [&](const Adjustment& made) { return made.file != file || made.line != line; });
    return adjustments;
}

} // namespace ShellTest

namespace SDK {

bool InnerCpuCtrlUtils::IsEnabled() {
    return ShellTest::enabled.load();
}

unsigned long InnerCpuCtrlUtils::GetSuggestedRunTick() {
    return ShellTest::suggestion.load();
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* who, unsigned long now,
                                        unsigned long elapsed) {
    const std::lock_guard<std::mutex> guard(ShellTest::GetRecord().mutex);
    ShellTest::GetRecord().adjustments.push_back({file, line, who, now, elapsed});
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    ShellTest::reads.fetch_add(1);
    return ShellTest::currentTick.load();
}

} // namespace SDK
