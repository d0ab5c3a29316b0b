#pragma once

#include <atomic>
#include <functional>

namespace Framework {

// A flag that one thread sleeps on and any thread may raise (an eventfd(2)).
//
// Raising an event that is raised already costs one atomic exchange and no system call.
class Event {
public:
    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void Signal();

    // Lowers the flag. What was made visible before a Signal that this call lowers is visible to the
    // caller afterwards.
    void Clear();

    // For poll(2); owned by the event.
    int GetFd() const { return mFd; }

private:
    int mFd;
    std::atomic<bool> mSignalled{false};
};

// Lets a task's thread sleep until its queue has messages.
class EventWaiter {
public:
    // Handles at most `max` queued messages and returns how many it handled.
    using Handler = std::function<int(int max)>;

    EventWaiter(Event& event, Handler handler) : mEvent(event), mHandler(std::move(handler)) {}

    // How long the waits of an idle task may become.
    static constexpr int MAX_IDLE_WAIT_MS = 1000;

    // Sleeps until the event is signalled, at most `timeoutMs` milliseconds; then handles at most
    // `max` messages on this thread. Returns how many were handled, or -1 when the time passed
    // without an event. Called by one thread only.
    //
    // Whatever a task must know signals the event, its own end included. So a task that is left in
    // peace need not wake as often as it asks to: each wait that passes without an event doubles the
    // time of the next, up to MAX_IDLE_WAIT_MS (or `timeoutMs`, if that is longer), and the first event
    // sets it back. Messages beyond `max` leave the event signalled, so that the next call
    // returns at once.
    int WaitAndHandleEvent(int timeoutMs, int max);

private:
    Event& mEvent;
    Handler mHandler;
    unsigned int mIdleWaits = 0; // waits in a row that passed without an event
};

} // namespace Framework
