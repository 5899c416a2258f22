#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "memory/share/ShareZone.h"

namespace Vantel::Memory {

/// What each mutex guards. Whoever takes several takes them in ascending order.
enum ProcessMutexIndex : uint32_t {
    kMutexRefer = 0,
    kMutexSmallMemory = 1,
    kMutexBuddy = 2,
    // 3 and 4 are there and unused.
    kMutexPool = 5,  // held as a member of the pool, locked by nothing
    kMutexCount = 6,
};

/// The zone of the mutexes. A shared-memory format.
struct MutexZone {
    ZoneHead head;
    pthread_mutex_t mutexes[kMutexCount];
};
static_assert(sizeof(pthread_mutex_t) == 40 && sizeof(MutexZone) == kMutexZoneSize &&
              offsetof(MutexZone, mutexes) == 8);

/// A mutex of the zone as this process sees it. The functions return 0 in every case.
struct ShareMutex {
    int32_t (*lock)(ShareMutex* thiz);
    int32_t (*unlock)(ShareMutex* thiz);
    pthread_mutex_t* internal;
};

/// Sets the mutexes up if the zone is fresh, and points this process's records at them: one zone at
/// a time in a process, a later call points them at its own. Before any thread uses them.
/// 0, or -1 with an error line if the zone's size is short of kMutexZoneSize or memory ran out.
/// Null ends the process.
int32_t initProcessMutex(ZoneHead* head);

/// The record of `index`; null with an error line from 6 on, and null before initProcessMutex().
ShareMutex* getProcessMutex(uint32_t index);

/// One of the mutexes: process-shared, priority-inheriting, robust, not recursive. After an owner
/// died in it the next one gets it, with an error line; what it guards is not repaired.
/// For std::lock_guard. initProcessMutex() must have been called, or the process ends.
class ProcessMutex {
public:
    explicit ProcessMutex(ProcessMutexIndex index);

    /// True, as it stands.
    bool lock() { return mMutex->lock(mMutex) == 0; }
    bool unlock() { return mMutex->unlock(mMutex) == 0; }

private:
    ShareMutex* mMutex;
};

}  // namespace Vantel::Memory
