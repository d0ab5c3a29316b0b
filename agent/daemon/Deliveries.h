#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <json/value.h>

#include "agent/daemon/Desired.h"
#include "agent/daemon/Detection.h"
#include "framework/Engine.h"
#include "sdk/RwLock.h"
#include "sdk/ThreadAnnotations.h"

namespace Daemon {

// The one thread on which policies and commands are delivered, one after the other.
//
// Whoever has a delivery to make hands it in and waits for what became of it; deliveries happen in the
// order in which they were handed in. While detection is wished and not on yet, the same thread looks
// every few seconds whether it can be started, and while the policy or the wish could not be written, whether
// they can be; otherwise it sleeps until there is work.
//
// All public operations may be called from any thread.
class Deliveries {
public:
    using Outcome = Framework::Engine::Outcome;

    // How often a thread that awaits detection looks.
    static constexpr std::chrono::milliseconds LOOK_INTERVAL{5000};

    // The engine's modules must be initialised. State is kept in `confFolder`, which ends in "/".
    Deliveries(Framework::Engine& engine, const std::string& confFolder,
               std::chrono::milliseconds lookInterval = LOOK_INTERVAL);
    ~Deliveries();
    Deliveries(const Deliveries&) = delete;
    Deliveries& operator=(const Deliveries&) = delete;

    // Delivers the last accepted policy again, if there is one, and starts detection if it is wished.
    // What is refused is logged; the daemon goes on without.
    void Restore();

    // Delivers a feature policy. An accepted one is kept, as the text it is, to be delivered again at
    // the next start.
    Outcome ApplyPolicy(const std::string& text);

    // Delivers a server command.
    Outcome RunCommand(const std::string& key, const std::string& text);

    // The policy in force as Engine::GetPolicy gives it, as of the last delivery.
    Json::Value GetPolicy() const;

    // How long the delivery thread has been at what it is doing; 0 while it waits for work.
    std::chrono::milliseconds GetTimeAtWork() const;

    bool IsDetectionWished() const { return mDesired.IsDetectionWished(); }

    // Ends the thread after the delivery it is at. Deliveries that wait, and later ones, are refused.
    void Stop();

private:
    struct Job {
        std::function<Outcome()> work;
        std::promise<Outcome> outcome;
    };

    Outcome Do(std::function<Outcome()> work);
    void Work();
    void WaitForJob(std::unique_lock<std::mutex>& lock, bool looks);
    void Perform(Job& job);
    void NoteAtWork(bool atWork);
    void Guarded(const char* what, const std::function<void()>& work) const;

    Outcome DeliverPolicy(const std::string& text);
    Outcome DeliverCommand(const std::string& key, const std::string& text);
    Outcome RedeliverPolicy();
    void KeepPolicy(const std::string& text, Outcome& outcome);
    int SavePolicy();
    bool HasUnsaved() const { return mUnsavedPolicy || mDesired.IsUnsaved(); }
    void SaveAgain();
    void TakeSnapshot();

    Framework::Engine& mEngine;
    const std::string mPolicyPath;
    const std::chrono::milliseconds mLookInterval;
    Desired mDesired;
    Detection mDetection;

    std::optional<std::string> mUnsavedPolicy; // for the thread

    mutable SDK::RwLock mPolicyLock;
    Json::Value mPolicy GUARDED_BY(mPolicyLock);

    // The jobs that wait, first come first; under mMutex together with mStopping.
    std::mutex mMutex;
    std::condition_variable mWork;
    std::deque<Job> mJobs;
    bool mStopping = false;

    // Since when the thread has been at work (CLOCK_MONOTONIC); 0 while it waits.
    std::atomic<std::uint64_t> mAtWorkSinceNs{0};

    std::thread mThread;
};

} // namespace Daemon
