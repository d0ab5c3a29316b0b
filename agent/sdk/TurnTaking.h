#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace SDK {

// Slots that one thread fills and another empties, in the same order, so that each works while the other does.
//
// A slot belongs to one side at a time: empty to the filling thread, until that says it is filled; filled to the
// emptying thread, until that says it is empty. Taking turns is what is locked, not the work on a slot.
//
// The two sides end one after the other: whoever is filling a slot when it is to stop may still give it on, and
// nobody would empty it if the other side were gone by then.
template <typename Slot> class TurnTaking {
public:
    static constexpr std::size_t COUNT = 2;
    using Slots = std::array<Slot, COUNT>;

    // Filling thread. Waits until a slot is empty, and gives the same one until Filled; null once stopped.
    Slot* AwaitEmpty() {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [this] { return mStopped || mFilled < COUNT; });
        return mStopped ? nullptr : &mSlots[mFilling];
    }
    void Filled() {
        mFilling = (mFilling + 1) % COUNT;
        Change([this] { ++mFilled; });
    }
    // Waits until the other side has nothing left, stopped or not.
    void AwaitAllEmpty() {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [this] { return mFilled == 0; });
    }

    // Emptying thread. Waits until a slot is filled, and gives the same one until Emptied; null once all is finished
    // and nothing is left.
    Slot* AwaitFilled() {
        std::unique_lock lock(mMutex);
        mChanged.wait(lock, [this] { return mFinished || mFilled > 0; });
        return mFilled > 0 ? &mSlots[mEmptying] : nullptr;
    }
    void Emptied() {
        mEmptying = (mEmptying + 1) % COUNT;
        Change([this] { --mFilled; });
    }

    // Any thread: no further slot is to be filled.
    void Stop() {
        Change([this] { mStopped = true; });
    }
    // Any thread, once the filling one has ended, or never was: the other side ends when nothing is left.
    void Finish() {
        Change([this] { mFinished = true; });
    }

    // All of them, for whom they all belong to: the filling thread while all are empty, anybody while there is
    // only one thread.
    Slots& All() { return mSlots; }

private:
    template <typename Action> void Change(Action action) {
        {
            const std::lock_guard guard(mMutex);
            action();
        }
        mChanged.notify_all();
    }

    Slots mSlots;
    std::size_t mFilling = 0;  // filling thread only
    std::size_t mEmptying = 0; // emptying thread only

    std::mutex mMutex;
    std::condition_variable mChanged;
    // The rest under mMutex.
    std::size_t mFilled = 0;
    bool mStopped = false;
    bool mFinished = false;
};

} // namespace SDK
