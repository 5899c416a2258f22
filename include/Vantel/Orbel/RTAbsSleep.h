#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

/// Sleeps for cyclic real-time loops, by absolute deadlines of the monotonic clock: signals do not
/// shorten them, and the rhythm does not drift. All times are nanoseconds.
///
/// Threads: one object belongs to one thread at a time.
class ORBEL_API RTAbsSleep {
public:
    /// `backoffNs` is the time of autoBackoff(). There is no next wake-up yet.
    RTAbsSleep(long periodNs, long backoffNs);

    /// Forgets the next wake-up.
    void resetRhythm();

    /// Sleeps until the next wake-up; returns at once if there is none.
    void waitNextPeriod();

    /// The next wake-up is one period from now.
    void periodComplete();

    /// Sleeps for the back-off time, if that is above 0.
    void autoBackoff();

    /// From the next periodComplete() on; a wake-up that is set stays.
    void setPeriodNs(long periodNs);

    /// Moves the next wake-up `stepNs` on and sleeps until it. If there is none, or that lies in
    /// the past already, the rhythm starts anew from now.
    void waitPeriodWithStepForward(long stepNs);

    /// Sleeps `ns` from now, without a look at the rhythm.
    static void manualBackoff(uint64_t ns);

private:
    long mPeriodNs;
    long mBackoffNs;
    long mNextWakeNs = 0;  // 0: none
};

}  // namespace Vantel::Orbel
