#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace Framework {

// A number that only grows, kept for the life of the process. Thread-safe, lock-free.
class Counter {
public:
    void Add(std::uint64_t count = 1) { mValue.fetch_add(count, std::memory_order_relaxed); }
    std::uint64_t Get() const { return mValue.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> mValue{0};
};

// Every counter of the agent by its name ("events.exec"), so that an operator can read all of them
// at once and nobody has to know in advance which there are. Thread-safe.
class Counters {
public:
    // The counter of that name, made at first use. The reference holds for the life of the process:
    // look it up once and keep it.
    static Counter& Of(const std::string& name);

    // All counters and their values now.
    static std::map<std::string, std::uint64_t> Snapshot();
};

} // namespace Framework
