#include "sdk/Shortage.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"

namespace SDK {

static ModuleLog moduleLog("sdk");

namespace {

constexpr std::uint64_t LOG_INTERVAL_NS = 1'000'000'000;

std::atomic<std::uint64_t> total{0};
std::atomic<std::uint64_t> nextRecordNs{0};
thread_local std::uint64_t ofThread = 0;

bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

// Of several threads that find the record due, one writes it.
void Tell(int error) {
    const std::uint64_t nowNs = TimeUtils::GetMonotonicNs();
    std::uint64_t dueNs = nextRecordNs.load(std::memory_order_relaxed);
    if (nowNs >= dueNs && nextRecordNs.compare_exchange_strong(dueNs, nowNs + LOG_INTERVAL_NS)) {
        moduleLog.Warning("no file descriptor or no memory was to be had, so far %?d times; what could not be looked "
                          "at is looked at again later: %s",
                          total.load(), std::strerror(error));
    }
}

} // namespace

int Shortage::Note(int error) {
    if (IsShortage(error)) {
        ++ofThread;
        total.fetch_add(1, std::memory_order_relaxed);
        Tell(error);
    }
    return error;
}

std::uint64_t Shortage::Count() {
    return total.load(std::memory_order_relaxed);
}

std::uint64_t Shortage::CountOfThread() {
    return ofThread;
}

} // namespace SDK
