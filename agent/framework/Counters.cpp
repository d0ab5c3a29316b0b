#include "framework/Counters.h"

#include <memory>

#include "sdk/RwLock.h"

namespace Framework {

namespace {

struct Registry {
    SDK::RwLock lock;
    // An entry is never removed and never moved: references to its counter are handed out.
    std::map<std::string, std::unique_ptr<Counter>> counters GUARDED_BY(lock);
};

// Never destroyed: threads may still count while the process exits.
Registry& TheRegistry() {
    static Registry* const registry = new Registry;
    return *registry;
}

} // namespace

Counter& Counters::Of(const std::string& name) {
    Registry& registry = TheRegistry();
    {
        const SDK::ReadGuard guard(registry.lock);
        const auto known = registry.counters.find(name);
        if (known != registry.counters.end()) {
            return *known->second;
        }
    }
    const SDK::WriteGuard guard(registry.lock);
    std::unique_ptr<Counter>& counter = registry.counters[name];
    if (!counter) {
        counter = std::make_unique<Counter>();
    }
    return *counter;
}

std::map<std::string, std::uint64_t> Counters::Snapshot() {
    Registry& registry = TheRegistry();
    std::map<std::string, std::uint64_t> values;
    const SDK::ReadGuard guard(registry.lock);
    for (const auto& [name, counter] : registry.counters) {
        values[name] = counter->Get();
    }
    return values;
}

} // namespace Framework
