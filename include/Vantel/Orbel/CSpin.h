#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// The system's spin lock: waits without sleeping, so hold it for a few instructions only.
///
/// Threads: all methods from any thread, leave() by the owner. The program ends (fatal line and
/// assertion) if the lock cannot be set up.
class ORBEL_API CSpin {
public:
    CSpin();
    CSpin(const CSpin&) = delete;
    CSpin& operator=(const CSpin&) = delete;
    ~CSpin();

    /// Spins until the lock is free; true. A second time by its owner, that is for ever.
    bool enter() { return pthread_spin_lock(mInternal) == 0; }
    /// False at once if somebody holds the lock.
    bool tryEnter() { return pthread_spin_trylock(mInternal) == 0; }
    /// Gives the lock back; true.
    bool leave() { return pthread_spin_unlock(mInternal) == 0; }

private:
    pthread_spinlock_t* mInternal;
};

static_assert(sizeof(CSpin) == sizeof(void*));

}  // namespace Vantel::Orbel
