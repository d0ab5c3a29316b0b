#pragma once

#include <chrono>
#include <string>

#include <json/value.h>

#include "agent/daemon/Deliveries.h"
#include "framework/Engine.h"

namespace Daemon {

// Gathers what an operator wants to know about the whole agent:
//
//   mode, mode_name, learned_minutes, learn_period_minutes, lists,
//   blocking    as the whitelist module says; null and "mode_error" when it cannot
//   events      {"exec", "fork", "exit", "judged", "lost"}: since the start
//   alerts      stored in the history, all time; null when it cannot be read
//   tasks       [{"name", "state", "depth", "capacity", "lost"}]
//   policy      {"hash", "accepted_time", "enabled"} or null
//   desired_detect, counters, scope ("" = the whole machine), pid, uptime_seconds, version
//
// Any thread.
class Status {
public:
    Status(const Framework::Engine& engine, const Deliveries& deliveries);

    Json::Value Collect() const;

private:
    void AddFiles(Json::Value& status) const;
    void AddMode(Json::Value& status) const;
    void AddPolicy(Json::Value& status) const;
    void AddAlerts(Json::Value& status) const;

    const Framework::Engine& mEngine;
    const Deliveries& mDeliveries;
    const std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
};

} // namespace Daemon
