#pragma once

#include <iterator>
#include <list>
#include <mutex>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

/// An ordered list of delegates, all called by one emission in their order of attachment.
///
/// Threads: any thread may attach, detach and emit. An emission holds the lock until its last
/// delegate has returned, so after detach() on another thread the delegate neither runs nor will
/// be called again. The lock is recursive: a delegate may attach and detach on the signal that
/// calls it, itself included. A delegate that emits the signal again ends the outer emission
/// early: the walk has one cursor.
///
/// A failed lock throws std::system_error; what a delegate throws runs through, and the delegates
/// behind it are not called.
template <class... Args>
class ORBEL_API TSignal {
public:
    /// What is attached. Found again by comparison, so a bound object must not move.
    using Slot = TDelegate<void, Args...>;

    /// `threadSafe` false: no lock is taken, all calls come from one thread.
    explicit TSignal(bool threadSafe = true) : mCursor(mSlots.end()), mThreadSafe(threadSafe) {}
    TSignal(const TSignal&) = delete;
    TSignal& operator=(const TSignal&) = delete;

    /// Adds a copy of `proc` at the end; one attached during an emission is called in it.
    /// Returns the new number of slots, or -1 if an equal delegate is attached already.
    int attach(const Slot& proc) {
        {
            const Lock guard(*this);
            if (find(proc) != mSlots.end()) {
                return -1;
            }
        }
        // Two holds of the lock, as it is meant to be: of two threads that attach equal delegates
        // at the same moment, both may get through.
        const Lock guard(*this);
        mSlots.push_back(proc);
        ++mSize;
        if (mCursor == mSlots.end()) {
            --mCursor;
        }
        return mSize;
    }

    /// Removes the first delegate equal to `proc`. False if there is none.
    bool detach(const Slot& proc) {
        const Lock guard(*this);
        const auto slot = find(proc);
        if (slot == mSlots.end()) {
            return false;
        }
        if (mCursor == slot) {
            ++mCursor;
        }
        mSlots.erase(slot);
        --mSize;
        return true;
    }

    /// The emission: calls every slot with `args`. An empty delegate is passed over.
    void operator()(Args... args) {
        const Lock guard(*this);
        auto slot = mSlots.begin();
        while (slot != mSlots.end()) {
            mCursor = std::next(slot);  // before the call, which may move it again
            if (!slot->empty()) {
                (*slot)(args...);
            }
            slot = mCursor;
        }
    }

private:
    using Slots = std::list<Slot>;

    class Lock {
    public:
        explicit Lock(TSignal& signal) : mMutex(signal.mThreadSafe ? &signal.mMutex : nullptr) {
            if (mMutex != nullptr) {
                mMutex->lock();
            }
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        ~Lock() {
            if (mMutex != nullptr) {
                mMutex->unlock();
            }
        }

    private:
        std::recursive_mutex* const mMutex;
    };

    typename Slots::iterator find(const Slot& proc) {
        auto slot = mSlots.begin();
        while (slot != mSlots.end() && !(*slot == proc)) {
            ++slot;
        }
        return slot;
    }

    Slots mSlots;
    int mSize = 0;
    typename Slots::iterator mCursor;  // during an emission, the slot after the one being called
    const bool mThreadSafe;
    std::recursive_mutex mMutex;
};

}  // namespace Vantel::Orbel
