#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Mutual exclusion between threads, with the system's default attributes: not recursive and
/// without priority inheritance. PrioMutex is the one for locks that real-time threads take.
///
/// Threads: all methods from any thread, leave() by the owner. The program ends (assertion) if the
/// mutex cannot be set up, or is destroyed while it is held.
class ORBEL_API CMutex {
public:
    CMutex();
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;
    ~CMutex();

    // The usual case is inline: one call of the C library, as with a bare mutex.

    /// Waits for the lock. False, with a line on standard output, if the system refuses.
    bool enter() { return pthread_mutex_lock(mInternal) == 0 || enterFailed(); }

    /// False at once if somebody holds the lock.
    bool tryEnter() { return pthread_mutex_trylock(mInternal) == 0; }

    /// Gives the lock back. A refusal counts as success, unless errno happens to hold EPERM, EINTR
    /// or EINVAL, which ends the program (assertion).
    bool leave() { return pthread_mutex_unlock(mInternal) == 0 || leaveFailed(); }

private:
    static bool enterFailed();
    static bool leaveFailed();

    pthread_mutex_t* mInternal;
};

static_assert(sizeof(CMutex) == sizeof(void*));

}  // namespace Vantel::Orbel
