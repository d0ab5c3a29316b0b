#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "agent/daemon/Deliveries.h"
#include "framework/Engine.h"

namespace Daemon {

// Tells the service manager every now and then that the daemon is alive ("WATCHDOG=1", sd_notify(3)), and
// what it is doing in one line ("STATUS=…").
//
// Alive means: the modules answer their inspectors' questions, and the delivery thread has not been at one
// delivery for longer than any may last. There is no sign of life otherwise, and the manager starts the
// daemon anew.
class Heartbeat {
public:
    struct Timing {
        std::chrono::milliseconds interval; // between two signs
        bool watchdog;                      // whether the manager waits for WATCHDOG=1
    };

    // Longer than any delivery lasts that comes to an end: a document is fetched within a minute, and a
    // stop of tasks is given up after ten seconds each.
    static constexpr std::chrono::milliseconds LONGEST_DELIVERY{600'000};

    // How often the line is sent when no manager waits for a sign of life.
    static constexpr std::chrono::milliseconds STATUS_INTERVAL{30'000};

    // As the environment of this process says (sd_watchdog_enabled(3)): half of WATCHDOG_USEC, unless
    // WATCHDOG_PID means another process. Nothing when there is no service manager.
    static std::optional<Timing> ReadTiming();

    // The engine and the deliveries outlive this.
    Heartbeat(const Framework::Engine& engine, const Deliveries& deliveries,
              std::chrono::milliseconds longestDelivery = LONGEST_DELIVERY);
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    // The first sign is sent at once, the others on a thread of its own until Stop. Called once.
    void Start(const Timing& timing);

    // Returns at once, or as soon as the modules have answered what they are being asked. A thread that a
    // module does not answer is left behind after two seconds.
    void Stop();

private:
    struct State;
    const std::shared_ptr<State> mState;
};

} // namespace Daemon
