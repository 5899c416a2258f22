#pragma once

#include <pthread.h>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Whom a CReadWriteMutex lets in first.
enum RW_PRIORITY : int {
    kReadWriteDefault = 0,  ///< readers pass a waiting writer; a reader may enter again
    kReadWriteWriters = 1,  ///< a waiting writer keeps new readers out; no reader enters twice
};

/// Many readers or one writer.
///
/// Threads: all methods from any thread, leave() by who entered. The program ends (fatal line and
/// assertion) if the lock cannot be set up, or is destroyed while it is held.
class ORBEL_API CReadWriteMutex {
public:
    CReadWriteMutex();
    /// A value beyond kReadWriteWriters warns and counts as the default.
    explicit CReadWriteMutex(RW_PRIORITY priority);
    CReadWriteMutex(const CReadWriteMutex&) = delete;
    CReadWriteMutex& operator=(const CReadWriteMutex&) = delete;
    ~CReadWriteMutex();

    /// Waits until no writer is inside. False, with a warning, if the system refuses.
    bool enterReading() {
        const int error = pthread_rwlock_rdlock(mInternal->lock);
        return error == 0 || readingFailed(error);
    }

    /// Waits until nobody is inside. False, with a warning, if the system refuses, as it does for
    /// a thread that is inside as a writer.
    bool enterWriting() {
        const int error = pthread_rwlock_wrlock(mInternal->lock);
        return error == 0 || writingFailed(error);
    }

    /// Leaves, as a reader or as the writer. A refusal counts as success, unless errno happens to
    /// hold EPERM, EINTR or EINVAL, which ends the program (fatal line and assertion).
    bool leave() { return pthread_rwlock_unlock(mInternal->lock) == 0 || leaveFailed(); }

private:
    struct RWMutexInternal {
        int priority;
        pthread_rwlock_t* lock;
    };

    static bool readingFailed(int error);
    static bool writingFailed(int error);
    static bool leaveFailed();

    RWMutexInternal* mInternal;
};

static_assert(sizeof(CReadWriteMutex) == sizeof(void*));

}  // namespace Vantel::Orbel
