#include "growth/Agent.h"

#include <stdexcept>
#include <string>

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include "ConfigManager.h"

namespace Bench {

namespace {

std::string Quote(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) {
        list += (list.empty() ? "\"" : ",\"") + text + "\"";
    }
    return list;
}

} // namespace

Agent::Agent(Mode mode, const std::vector<std::string>& dirs)
    : engine(*Engine::ProcessManager::Instance()), mReporter(new TestSupport::IdleTask("reporter")) {
    Poco::Logger::setLevel("", Poco::Message::PRIO_FATAL);
    const bool learning = mode == Mode::Learning;
    root.Write("conf/modwhitelist.ini", std::string("[Driver]\nLearnTime=") + (learning ? "0" : "1440") +
                                            "\nLearnMod=" + (learning ? "1" : "3") + "\n");
    const std::string policy = std::string(R"({"content":{"dir_mod":)") + (learning ? "false" : "true") +
                               R"(,"action_block":false,"learning_days":1,"dirs":[)" + Quote(dirs) + R"(],"exts":[]}})";
    Engine::ConfigManager& config = *Engine::ConfigManager::Instance();
    if (!config.Init() || !config.ParsePolicy(policy.c_str()) ||
        !engine.Init(static_cast<Framework::Task*>(mReporter.get()))) {
        throw std::runtime_error("the trust engine cannot be set up");
    }
    // Forgets the lists of the agent before.
    engine.Onstart();
}

Agent::~Agent() {
    engine.ForgetTask(mReporter.get());
}

} // namespace Bench
