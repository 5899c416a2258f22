#pragma once

#include <atomic>
#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A spin lock that backs off: it spins, then yields, and sleeps now and then. The lock stands in
/// a cache line of its own. Not recursive.
///
/// Threads: all methods from any thread, leave() by the owner.
class ORBEL_API SpinLock {
public:
    SpinLock();
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;
    virtual ~SpinLock();

    /// Waits for the lock, without limit.
    void enter() {
        if (mInternal->locked.load(std::memory_order_relaxed) != 0 || !tryEnter()) {
            enterBusy();
        }
    }

    /// False at once if somebody holds the lock.
    bool tryEnter() { return mInternal->locked.exchange(1) == 0; }

    /// Gives the lock back; nobody checks that the caller has it.
    void leave() {
        // Release: what was written inside is seen by whose exchange finds the 0.
        mInternal->locked.store(0, std::memory_order_release);
    }

private:
    struct alignas(64) Internal {
        std::atomic<uint8_t> locked{0};
    };

    void enterBusy();

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
