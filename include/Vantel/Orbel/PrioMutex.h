#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Mutual exclusion between threads with priority inheritance: for locks that real-time threads
/// take. Not recursive.
///
/// Threads: all methods from any thread, leave() by the owner. Failures of the set-up are not
/// noticed.
class ORBEL_API PrioMutex {
public:
    PrioMutex();
    PrioMutex(const PrioMutex&) = delete;
    PrioMutex& operator=(const PrioMutex&) = delete;
    ~PrioMutex();

    /// Waits for the lock. False if the system refuses, as it does for the owner (EDEADLK).
    bool enter() { return pthread_mutex_lock(mInternal) == 0; }

    /// False at once if somebody holds the lock.
    bool tryEnter() { return pthread_mutex_trylock(mInternal) == 0; }

    /// False if the caller does not hold the lock.
    bool leave() { return pthread_mutex_unlock(mInternal) == 0; }

private:
    pthread_mutex_t* mInternal;
};

static_assert(sizeof(PrioMutex) == sizeof(void*));

}  // namespace Vantel::Orbel
