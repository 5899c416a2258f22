#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// A lock that stands in shared memory: process-shared, priority-inheriting, recursive and robust.
/// The object is the system's mutex itself, so that it can be placed in a mapped region. Who sets
/// the region up constructs it there; everybody else only uses it.
///
/// Whoever dies in the lock leaves it to the next enter(). What the lock protects is neither
/// repaired nor marked then.
///
/// Threads: all methods from any thread of any process that maps it, leave() by the owner. The
/// program ends (assertion) if the mutex cannot be set up. Nobody may hold it when it is destroyed,
/// which the system does not notice for a robust one.
class ORBEL_API SHMMutex {
public:
    SHMMutex();
    SHMMutex(const SHMMutex&) = delete;
    SHMMutex& operator=(const SHMMutex&) = delete;
    ~SHMMutex();

    /// Waits for the lock; takes it over from an owner that died. False if the system refuses.
    bool enter() {
        const int error = pthread_mutex_lock(&mMutex);
        return error == 0 || enterFailed(error);
    }

    /// False at once if somebody holds the lock, and once after its owner died: that call repairs
    /// the lock, so that the next one gets it.
    bool tryEnter() {
        const int error = pthread_mutex_trylock(&mMutex);
        return error == 0 || tryEnterFailed(error);
    }

    /// As CMutex::leave(): a refusal counts as success, unless errno holds EPERM, EINTR or EINVAL,
    /// which ends the program (assertion).
    bool leave() { return pthread_mutex_unlock(&mMutex) == 0 || leaveFailed(); }

private:
    bool enterFailed(int error);
    bool tryEnterFailed(int error);
    static bool leaveFailed();

    pthread_mutex_t mMutex;
};

static_assert(sizeof(SHMMutex) == 40 && alignof(SHMMutex) == 8, "part of shared memory layouts");

}  // namespace Vantel::Orbel
