#include <memory>

#include "sdk/Histogram.h"
#include "sdk/RwLock.h"

namespace SDK {

namespace {

struct Registry {
    RwLock lock;
    // An entry is never removed and never moved: references to its histogram are handed out.
    std::map<std::string, std::unique_ptr<Histogram>> histograms GUARDED_BY(lock);
};

// Never destroyed: threads may still record while the process exits.
Registry& TheRegistry() {
    static Registry* const registry = new Registry;
    return *registry;
}

} // namespace

Histogram& Histograms::Of(const std::string& name) {
    Registry& registry = TheRegistry();
    const WriteGuard guard(registry.lock);
    std::unique_ptr<Histogram>& histogram = registry.histograms[name];
    if (!histogram) {
        histogram = std::make_unique<Histogram>();
    }
    return *histogram;
}

std::map<std::string, Histogram::Snapshot> Histograms::ReadAll() {
    Registry& registry = TheRegistry();
    std::map<std::string, Histogram::Snapshot> all;
    const ReadGuard guard(registry.lock);
    for (const auto& [name, histogram] : registry.histograms) {
        all[name] = histogram->Read();
    }
    return all;
}

} // namespace SDK
