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

    // Sleeps until the event is signalled, at most `timeoutMs` milliseconds; then handles at most
    // `max` messages on this thread. Returns how many were handled, or -1 when the time passed
    // without an event. Messages beyond `max` leave the event signalled, so that the next call
    // returns at once.
    int WaitAndHandleEvent(int timeoutMs, int max);

private:
    Event& mEvent;
    Handler mHandler;
};

} // namespace Framework
