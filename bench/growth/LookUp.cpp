#include <cstddef>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "growth/Agent.h"
#include "growth/Figures.h"
#include "growth/TrustList.h"
#include "support/Report.h"

namespace Bench {

namespace {

constexpr std::size_t LOOK_UPS = 200000;
constexpr double NS = 1e9;

Engine::ProcessInfo ToRecord(const TrustEntry& entry) {
    Engine::ProcessInfo info;
    info.path = entry.path;
    info.name = entry.name;
    info.hash = entry.hash;
    info.type = Engine::MATCH_HASH;
    return info;
}

// Which entries are asked for, drawn beforehand.
std::vector<std::size_t> Draw(std::size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::size_t> drawn;
    for (std::size_t i = 0; i < LOOK_UPS; ++i) {
        drawn.push_back(random() % count);
    }
    return drawn;
}

} // namespace

void MeasureLookUp(int round) {
    for (const std::size_t count : {100U, 10000U, 1000000U}) {
        Agent agent(Agent::Mode::Learning);
        const std::vector<TrustEntry> entries = MakeEntries("", count);
        for (const TrustEntry& entry : entries) {
            agent.engine.UpdateLocalProcessInfo(ToRecord(entry));
        }
        std::size_t found = 0;
        const std::string unknown(64, 'f');
        const auto ask = [&](const char* series, bool known) {
            const std::vector<std::size_t> drawn = Draw(count, static_cast<unsigned>(round));
            const double seconds = Seconds([&] {
                for (const std::size_t i : drawn) {
                    int source = 0;
                    found +=
                        agent.engine.IsWhiteHash(known ? entries[i].hash : unknown, entries[i].path, source) ? 1 : 0;
                }
            });
            Report({"trust list: look-up", std::to_string(count), series, seconds / LOOK_UPS * NS, "ns", {}});
        };
        Alternate(round, {[&] { ask("known", true); }, [&] { ask("another digest", false); }});
        if (found != LOOK_UPS) {
            throw std::runtime_error("a look-up went wrong");
        }
    }
}

} // namespace Bench
