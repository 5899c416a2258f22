#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A counting semaphore between threads. Its timed waits go by the monotonic clock, so that
/// setting the clock does not disturb them; its mutex has priority inheritance.
///
/// Threads: all methods from any thread. The program ends (fatal line and assertion) if the
/// semaphore cannot be set up or torn down.
class ORBEL_API CSemaphore {
public:
    /// `initialCount` of 0 or more (asserted).
    explicit CSemaphore(int32_t initialCount);
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;
    virtual ~CSemaphore();

    /// Waits for a unit and takes it. The new count, or -1 if the system refuses.
    int32_t pend();

    /// As pend(), for at most `timeoutMs` milliseconds; -1 after that, and with an error line if
    /// the clock cannot be read.
    int32_t pend(uint32_t timeoutMs);

    /// As pend(), for at most `timeoutUs` microseconds. With `clearAll` it takes all units and
    /// returns 0: one wake-up for any number of posts.
    int32_t pendUs(uint32_t timeoutUs, bool clearAll);

    /// Takes a unit if there is one. 0, whatever is left; -1 if there is none, or if another
    /// thread is using the semaphore at this very moment.
    int32_t tryPend();

    /// Adds ONE unit: `retries` is no number of units but how often a failed wake-up is tried
    /// again. The new count. -1 if no wake-up worked (with a warning; the unit is added all the
    /// same) or the system refuses.
    int32_t post(int32_t retries);

    /// Takes all units.
    void clear();

private:
    class ORBEL_LOCAL Internal;

    Internal* mInternal;
};

}  // namespace Vantel::Orbel
