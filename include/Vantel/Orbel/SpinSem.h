#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class SpinSemImpl;

/// A counting semaphore between threads that spins before it sleeps. While units are there, and
/// nobody sleeps, no call enters the kernel. The counts stand in a cache line of their own.
///
/// Threads: all methods from any thread. Asserts that the system's semaphore can be made.
class ORBEL_API SpinSem {
public:
    /// `initialCount` of 0 to INT32_MAX units. A waiter looks `spinCount` times before it sleeps.
    SpinSem(uint32_t initialCount, uint32_t spinCount);
    SpinSem(const SpinSem&) = delete;
    SpinSem& operator=(const SpinSem&) = delete;
    ~SpinSem();

    /// Takes a unit if there is one.
    bool tryWait();

    /// Takes a unit, waiting at most `timeoutUs` microseconds for it: 0 does not sleep, a negative
    /// number waits without limit. False if there was none.
    bool wait(long timeoutUs);

    /// Takes up to `max` units that are there; how many it took.
    int32_t tryWaitMany(uint32_t max);

    /// Takes 1 to `max` units, waiting as wait() does for the first; how many it took, 0 if none.
    int32_t waitMany(uint32_t max, long timeoutUs);

    /// Adds `count` units and wakes as many sleepers.
    void post(uint32_t count);

private:
    SpinSemImpl* mInternal;
};

static_assert(sizeof(SpinSem) == sizeof(void*));

}  // namespace Vantel::Orbel
