#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Mutual exclusion between threads that its owner may enter again, any number of times; each
/// enter() needs its leave().
///
/// Threads: all methods from any thread, leave() by the owner. The program ends (fatal line and
/// assertion) if the mutex cannot be set up, or is destroyed while it is held.
class ORBEL_API CRecursiveMutex {
public:
    CRecursiveMutex();
    CRecursiveMutex(const CRecursiveMutex&) = delete;
    CRecursiveMutex& operator=(const CRecursiveMutex&) = delete;
    ~CRecursiveMutex();

    /// Waits for the lock. False, with a line on standard output, if the system refuses.
    bool enter() { return pthread_mutex_lock(mInternal) == 0 || enterFailed(); }

    /// As CMutex::leave(): a refusal counts as success, unless errno holds EPERM, EINTR or EINVAL,
    /// which ends the program (assertion).
    bool leave() { return pthread_mutex_unlock(mInternal) == 0 || leaveFailed(); }

private:
    static bool enterFailed();
    static bool leaveFailed();

    pthread_mutex_t* mInternal;
};

static_assert(sizeof(CRecursiveMutex) == sizeof(void*));

}  // namespace Vantel::Orbel
