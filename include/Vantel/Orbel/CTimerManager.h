#pragma once

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// The thread pool behind all CTimers of the process.
///
/// Threads: all methods from any thread.
class ORBEL_API CTimerManager {
public:
    /// Never destroyed.
    static CTimerManager* instance();

    CTimerManager(const CTimerManager&) = delete;
    CTimerManager& operator=(const CTimerManager&) = delete;

    /// Writes the armed timers to the log, at level information. Nothing at all unless
    /// limitIdlePooled() has set a limit.
    void printTimers();

    /// At most `limit` pooled threads from now on, idle or not; a timer that falls due while all of
    /// them are busy waits. What fires at once (CTimer::start without delay, CTimer::stop) has its
    /// thread all the same. 0 or less, the default: no limit.
    void limitIdlePooled(int limit);

    /// Binds pooled threads to a processor, those that are made from now on. False for a negative
    /// `core`, which changes nothing; one that the machine hasn't leaves the threads unbound.
    bool setCPUAffinity(int core);

private:
    CTimerManager() = default;
};

}  // namespace Vantel::Orbel
