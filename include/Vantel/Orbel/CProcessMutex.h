#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class MutexInternal;

/// A lock between processes that know its key or its name: one System V semaphore. A process that
/// dies in the lock gives it back. Not recursive: a second enter() of the same process waits for
/// the first.
///
/// The semaphore set outlives its processes; nothing here removes it (`ipcrm -S key`).
///
/// Threads: all methods from any thread. The program ends (fatal line and assertion) for a null or
/// empty name and if the set can neither be made nor be joined.
class ORBEL_API CProcessMutex {
public:
    /// `key` is the System V key, of which 32 bits count. 0 is IPC_PRIVATE: a set of its own for
    /// each object, which nobody removes. A literal 0 needs its suffix, `CProcessMutex(0UL)`.
    explicit CProcessMutex(unsigned long key);

    /// The key is the 64-bit hash of `name` (frame/base/StringHash.h) masked with 0x7fffffff: two
    /// names may share a lock, so choose long ones of your own.
    explicit CProcessMutex(const char* name);

    CProcessMutex(const CProcessMutex&) = delete;
    CProcessMutex& operator=(const CProcessMutex&) = delete;
    virtual ~CProcessMutex();

    /// Waits for the lock. False, with a warning and errno, if that fails. EINTR: a signal handler
    /// ran while it waited, whatever its flags; the caller tries again or gives up.
    bool enter();

    /// Gives the lock back; true, also for a lock that nobody holds. False as enter().
    bool leave();

private:
    MutexInternal* mInternal;
};

}  // namespace Vantel::Orbel
