#include "agent/daemon/Heartbeat.h"

#include <algorithm>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include "agent/daemon/Modules.h"
#include "agent/daemon/Notify.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PrintableText.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

constexpr std::chrono::seconds STOP_TIME{2};
constexpr std::chrono::milliseconds SHORTEST_INTERVAL{10};

// The whole number that the variable holds; nothing when it is not set or holds something else.
std::optional<std::int64_t> ReadNumber(const char* variable) {
    const char* text = std::getenv(variable);
    if (text == nullptr) {
        return std::nullopt;
    }
    std::int64_t number = 0;
    const char* const end = text + std::strlen(text);
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

bool IsWatchdogMeantForUs() {
    return std::getenv("WATCHDOG_PID") == nullptr || ReadNumber("WATCHDOG_PID") == getpid();
}

std::string Count(const Json::Value& object, const char* key) {
    return std::to_string(SDK::JsonUtils::GetInt64Value(object, key, 0));
}

// "learning, 17 of 10080 minutes", "detecting".
std::string DescribeMode(const Json::Value& whitelist) {
    if (!whitelist.isMember("mode")) {
        return "mode not known";
    }
    std::string name = SDK::JsonUtils::GetStringValue(whitelist, "mode_name", "");
    if (SDK::JsonUtils::GetIntValue(whitelist, "mode", MODE_STOPPED) != MODE_LEARNING) {
        return name;
    }
    return name + ", " + Count(whitelist, "learned_minutes") + " of " + Count(whitelist, "learn_period_minutes") +
           " minutes";
}

std::string DescribeState(const Json::Value& whitelist, const Json::Value& reports) {
    Json::Value lists;
    SDK::JsonUtils::GetSubobjectValue(whitelist, "lists", lists);
    return DescribeMode(whitelist) + "; trusted: " + Count(lists, "local") + " local, " + Count(lists, "server") +
           " server, " + Count(lists, "os_preset") + " OS preset, " + Count(lists, "service_preset") +
           " service preset; " + Count(reports, "alerts") + " alerts";
}

} // namespace

// The thread has its share in this, so that one that is left behind finds it when it goes on. The engine
// and the deliveries may be gone by then: after each answer it looks whether it was told to stop.
struct Heartbeat::State {
    State(const Framework::Engine& theEngine, const Deliveries& theDeliveries, std::chrono::milliseconds longest)
        : engine(theEngine), deliveries(theDeliveries), longestDelivery(longest) {}

    void Beat(const Timing& timing);
    bool Examine(std::string& line);
    std::optional<Json::Value> Ask(const char* module, const char* query);
    bool AreDeliveriesAlive();
    bool IsStopping();

    const Framework::Engine& engine;
    const Deliveries& deliveries;
    const std::chrono::milliseconds longestDelivery;
    bool stuckLogged = false; // the thread's own

    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    bool ended = false;
    std::thread thread;
};

std::optional<Heartbeat::Timing> Heartbeat::ReadTiming() {
    if (std::getenv("NOTIFY_SOCKET") == nullptr) {
        return std::nullopt;
    }
    const std::int64_t watchdogUs = ReadNumber("WATCHDOG_USEC").value_or(0);
    if (watchdogUs <= 0 || !IsWatchdogMeantForUs()) {
        return Timing{STATUS_INTERVAL, false};
    }
    const auto half = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(watchdogUs / 2));
    return Timing{std::max(half, SHORTEST_INTERVAL), true};
}

Heartbeat::Heartbeat(const Framework::Engine& engine, const Deliveries& deliveries,
                     std::chrono::milliseconds longestDelivery)
    : mState(std::make_shared<State>(engine, deliveries, longestDelivery)) {}

Heartbeat::~Heartbeat() {
    Stop();
}

void Heartbeat::Start(const Timing& timing) {
    mState->thread = std::thread([state = mState, timing] {
        pthread_setname_np(pthread_self(), "heartbeat");
        state->Beat(timing);
        const std::lock_guard<std::mutex> lock(state->mutex);
        state->ended = true;
        state->changed.notify_all();
    });
}

void Heartbeat::Stop() {
    if (!mState->thread.joinable()) {
        return;
    }
    std::unique_lock<std::mutex> lock(mState->mutex);
    mState->stopping = true;
    mState->changed.notify_all();
    const bool ended = mState->changed.wait_for(lock, STOP_TIME, [this] { return mState->ended; });
    lock.unlock();
    if (ended) {
        mState->thread.join();
    } else {
        moduleLog.Error("a module does not answer: the thread that asks it is left behind");
        mState->thread.detach();
    }
}

void Heartbeat::State::Beat(const Timing& timing) {
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        lock.unlock();
        std::string line;
        const bool alive = Examine(line);
        if (alive && !IsStopping()) {
            NotifyServiceManager((timing.watchdog ? "WATCHDOG=1\nSTATUS=" : "STATUS=") +
                                 SDK::PrintableText::Escape(line));
        }
        lock.lock();
        changed.wait_for(lock, timing.interval, [this] { return stopping; });
    }
}

// True when everybody is alive, with the line about the daemon's state.
bool Heartbeat::State::Examine(std::string& line) {
    try {
        const std::optional<Json::Value> whitelist = Ask(WHITELIST_MODULE, "status");
        const std::optional<Json::Value> reports = Ask(REPORTS_MODULE, "count");
        const std::optional<Json::Value> files = Ask(FILES_MODULE, "status");
        if (!whitelist || !reports || !files || !AreDeliveriesAlive()) {
            return false;
        }
        line = DescribeState(*whitelist, *reports);
        return true;
    } catch (const std::exception& error) {
        moduleLog.Error("exception in looking after the modules: %s", error.what());
        return false;
    }
}

// That a module says it cannot answer is an answer. Nothing when this is to stop.
std::optional<Json::Value> Heartbeat::State::Ask(const char* module, const char* query) {
    if (IsStopping()) {
        return std::nullopt;
    }
    return AskModule(engine, module, query);
}

bool Heartbeat::State::AreDeliveriesAlive() {
    const bool stuck = !IsStopping() && deliveries.GetTimeAtWork() > longestDelivery;
    if (stuck && !stuckLogged) {
        moduleLog.Error("a delivery does not come to an end: no more signs of life for the service manager");
    }
    stuckLogged = stuck;
    return !stuck;
}

bool Heartbeat::State::IsStopping() {
    const std::lock_guard<std::mutex> lock(mutex);
    return stopping;
}

} // namespace Daemon
