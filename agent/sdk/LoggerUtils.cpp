#include "sdk/LoggerUtils.h"

#include <exception>
#include <map>

#include "agent/sdk/LogChannels.h"
#include "agent/sdk/LoggerRegistry.h"
#include "sdk/RwLock.h"

namespace SDK {

namespace {

struct Entry {
    Poco::Logger* logger;
    Poco::AutoPtr<RootForwarder> channel;
};

// Every logger that was handed out. The root logger has no entry: it is what the others forward to.
struct Registry {
    RwLock lock;
    std::map<std::string, Entry> entries GUARDED_BY(lock);
};

// Never destroyed: loggers live until the process ends.
Registry& GetRegistry() {
    static Registry* const registry = new Registry;
    return *registry;
}

Entry MakeEntry(const std::string& name) {
    const Poco::AutoPtr<RootForwarder> channel(new RootForwarder);
    Poco::Logger& logger = Poco::Logger::get(name);
    logger.setChannel(channel);
    return {&logger, channel};
}

Poco::Logger* GetLogger(const std::string& name, bool console) {
    if (name.empty()) {
        return &Poco::Logger::root();
    }
    Registry& registry = GetRegistry();
    const WriteGuard guard(registry.lock);
    auto found = registry.entries.find(name);
    if (found == registry.entries.end()) {
        found = registry.entries.emplace(name, MakeEntry(name)).first;
    }
    if (console) {
        found->second.channel->AlsoToConsole();
    }
    return found->second.logger;
}

} // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    return &instance;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool console) {
    try {
        return GetLogger(name, console);
    } catch (const std::exception&) {
        return nullptr;
    }
}

void AttachLoggersToRoot() {
    Registry& registry = GetRegistry();
    const ReadGuard guard(registry.lock);
    for (const auto& [name, entry] : registry.entries) {
        entry.logger->setChannel(entry.channel);
    }
}

} // namespace SDK
