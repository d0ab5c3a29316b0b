#include "agent/daemon/Deliveries.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/TimeUtils.h"

namespace Daemon {

namespace {

SDK::ModuleLog moduleLog("daemon");

constexpr std::uint64_t MAX_POLICY_BYTES = 64U << 20U;

Deliveries::Outcome Refusal(const std::string& reason) {
    return {false, reason, {}};
}

} // namespace

Deliveries::Deliveries(Framework::Engine& engine, const std::string& confFolder, std::chrono::milliseconds lookInterval)
    : mEngine(engine), mPolicyPath(confFolder + "policy.json"), mLookInterval(lookInterval),
      mDesired(confFolder + "desired.json"), mDetection(engine, mDesired), mThread([this] { Work(); }) {}

Deliveries::~Deliveries() {
    Stop();
}

void Deliveries::Restore() {
    Do([this] { return RedeliverPolicy(); });
}

Deliveries::Outcome Deliveries::ApplyPolicy(const std::string& text) {
    return Do([this, &text] { return DeliverPolicy(text); });
}

Deliveries::Outcome Deliveries::RunCommand(const std::string& key, const std::string& text) {
    return Do([this, &key, &text] { return DeliverCommand(key, text); });
}

Json::Value Deliveries::GetPolicy() const {
    const SDK::ReadGuard guard(mPolicyLock);
    return mPolicy;
}

std::chrono::milliseconds Deliveries::GetTimeAtWork() const {
    const std::uint64_t sinceNs = mAtWorkSinceNs.load(std::memory_order_relaxed);
    const std::uint64_t durationNs = sinceNs == 0 ? 0 : SDK::TimeUtils::GetNsSince(sinceNs);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::nanoseconds(durationNs));
}

void Deliveries::Stop() {
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mWork.notify_all();
    if (mThread.joinable()) {
        mThread.join();
    }
}

Deliveries::Outcome Deliveries::Do(std::function<Outcome()> work) {
    std::future<Outcome> outcome;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping) {
            return Refusal("the agent is stopping");
        }
        mJobs.push_back({std::move(work), {}});
        outcome = mJobs.back().outcome.get_future();
    }
    mWork.notify_all();
    return outcome.get();
}

void Deliveries::Work() {
    std::unique_lock<std::mutex> lock(mMutex);
    bool awaitsDetection = false;
    while (!mStopping) {
        NoteAtWork(true);
        if (!mJobs.empty()) {
            Job job = std::move(mJobs.front());
            mJobs.pop_front();
            lock.unlock();
            Perform(job);
        } else {
            lock.unlock();
            if (awaitsDetection) {
                Guarded("starting detection", [this] { mDetection.StartWhenLearned(); });
            }
            Guarded("writing what could not be written", [this] { SaveAgain(); });
        }
        Guarded("looking at the mode", [&] { awaitsDetection = mDetection.IsAwaited(); });
        NoteAtWork(false);
        lock.lock();
        WaitForJob(lock, awaitsDetection || HasUnsaved());
    }
    Guarded("writing what could not be written", [this] { SaveAgain(); });
    for (Job& job : mJobs) {
        job.outcome.set_value(Refusal("the agent is stopping"));
    }
    mJobs.clear();
}

void Deliveries::WaitForJob(std::unique_lock<std::mutex>& lock, bool looks) {
    const auto hasWork = [this] { return mStopping || !mJobs.empty(); };
    if (looks) {
        mWork.wait_for(lock, mLookInterval, hasWork);
    } else {
        mWork.wait(lock, hasWork);
    }
}

void Deliveries::Perform(Job& job) {
    Outcome outcome = Refusal("the delivery failed inside the agent, see its log");
    Guarded("a delivery", [&] { outcome = job.work(); });
    Guarded("reading the policy in force", [this] { TakeSnapshot(); });
    job.outcome.set_value(std::move(outcome));
}

void Deliveries::NoteAtWork(bool atWork) {
    mAtWorkSinceNs.store(atWork ? SDK::TimeUtils::GetMonotonicNs() : 0, std::memory_order_relaxed);
}

void Deliveries::Guarded(const char* what, const std::function<void()>& work) const {
    try {
        work();
    } catch (const std::exception& error) {
        moduleLog.Error("exception in %s: %s", what, error.what());
    }
}

Deliveries::Outcome Deliveries::DeliverPolicy(const std::string& text) {
    Outcome outcome = mEngine.DeliverPolicy(POLICY_KEY, text);
    if (outcome.accepted) {
        KeepPolicy(text, outcome);
    } else {
        moduleLog.Warning("policy refused: %s", outcome.reason);
    }
    // Also after a refusal, because the tasks of the installed policy may have been replaced.
    mDetection.Fulfil();
    return outcome;
}

Deliveries::Outcome Deliveries::DeliverCommand(const std::string& key, const std::string& text) {
    Outcome outcome = mEngine.DeliverCommand(key, text);
    mDetection.LearnFrom(key, outcome);
    if (outcome.accepted) {
        moduleLog.Information("command [%s] done", key);
    } else {
        moduleLog.Warning("command [%s] refused: %s", key, outcome.reason);
    }
    return outcome;
}

Deliveries::Outcome Deliveries::RedeliverPolicy() {
    std::string text;
    if (const int error = SDK::FileUtils::ReadFile(mPolicyPath, text, MAX_POLICY_BYTES); error != 0) {
        if (error == ENOENT) {
            return Refusal("there is no policy yet");
        }
        moduleLog.Error("policy [%s] cannot be read, going on without: %s", mPolicyPath, std::strerror(error));
        return Refusal(std::strerror(error));
    }
    Outcome outcome = mEngine.DeliverPolicy(POLICY_KEY, text);
    if (outcome.accepted) {
        moduleLog.Information("policy [%s] is in force again", mPolicyPath);
        mDetection.Fulfil();
    } else {
        moduleLog.Error("policy [%s] was refused, going on without: %s", mPolicyPath, outcome.reason);
    }
    return outcome;
}

void Deliveries::KeepPolicy(const std::string& text, Outcome& outcome) {
    Json::Value delivered;
    SDK::JsonUtils::ParseJsonStr(text, delivered);
    // A delivery with the hash of the installed policy is accepted without taking its place; what is
    // kept is what is in force.
    if (mEngine.GetPolicy(POLICY_KEY)["document"] != delivered) {
        return;
    }
    mUnsavedPolicy = text;
    if (const int error = SavePolicy(); error != 0) {
        const std::string note = "the policy is in force but could not be kept for the next start: [" + mPolicyPath +
                                 "]: " + std::strerror(error);
        moduleLog.Error("%s", note);
        outcome.notes.push_back(note);
    }
}

int Deliveries::SavePolicy() {
    const int error = SDK::FileUtils::WriteFile(mPolicyPath, *mUnsavedPolicy, false);
    if (error == 0) {
        mUnsavedPolicy.reset();
    }
    return error;
}

void Deliveries::SaveAgain() {
    if (mUnsavedPolicy && SavePolicy() == 0) {
        moduleLog.Notice("the policy in force is kept in [%s] after all", mPolicyPath);
    }
    mDesired.SaveAgain();
}

void Deliveries::TakeSnapshot() {
    Json::Value policy = mEngine.GetPolicy(POLICY_KEY);
    const SDK::WriteGuard guard(mPolicyLock);
    mPolicy = std::move(policy);
}

} // namespace Daemon
