#pragma once

#include <cstdint>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TDelegate.h"

namespace Vantel::Orbel {

class TimerInternal;

/// A coarse timer for housekeeping: a callback after a delay, once or periodically, on a pooled
/// thread. Ticks come about every 100 ms; a delay counts from the last one, and the timer fires on
/// the first one after its time, so it is exact to about 100 ms, early or late. A slow callback
/// holds up neither the other timers nor the ticks. One run of a timer is under way at most: what
/// falls due during a run is dropped. Exact timers live in an EventLoop.
///
/// The callback may destroy its own timer. At the exit of the process all timers stop for good;
/// callbacks under way are left alone. In the child of a fork that does not exec timers
/// fire only if the process had never started one.
///
/// Threads: all methods from any thread and from callbacks.
class ORBEL_API CTimer {
public:
    /// Arms nothing. `name` is cut at 31 characters, null counts as empty.
    explicit CTimer(const char* name);
    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;
    /// Disarms the timer and waits as stopAndWait() does.
    virtual ~CTimer();

    /// Arms the timer, also one that is armed already: `proc` is called with `param` in `delayMs`
    /// milliseconds (0: at once, on a pooled thread all the same), and then every `periodMs` (0:
    /// no more). A callback that takes longer than `timeoutMs` (0: no limit) shows up, under the
    /// timer's name, among the overdue threads of CThreadManager. Ends enableStat().
    ///
    /// True; with a delay of 0 whether a thread took the callback: false if the last run still
    /// goes on, or no thread could be started. False, and nothing changes, for an empty `proc`
    /// (with an error line), once the process exits, and in such a child of a fork.
    bool start(TDelegate<void, unsigned long> proc, uint32_t delayMs, uint32_t periodMs,
               unsigned long param, uint32_t timeoutMs);

    /// Disarms the timer; a callback under way goes on. With `callNow` a one-shot timer that was
    /// armed fires now instead of never; the result is then whether a thread took it. Otherwise
    /// whether the timer was armed; false in such a child of a fork.
    bool stop(bool callNow);

    /// Disarms the timer and waits for the end of a callback under way, unless it is that callback
    /// that asks. True.
    bool stopAndWait();

    /// The next call moves by the difference to the present period, and so do those behind it.
    void setPeriodTime(uint32_t periodMs);

    /// Adds up the time spent in the callback, for CTimerManager::printTimers().
    void enableStat(bool on);

    /// Valid until setName() or the end of the object.
    const char* getName() const;
    /// Cut at 31 characters, null counts as empty.
    void setName(const char* name);

    /// The timer is armed.
    bool isStarted() const;
    /// A one-shot timer has fired since its start().
    bool isCalled() const;
    /// A callback is under way.
    bool isRunning() const;

private:
    TimerInternal* mInternal;
};

}  // namespace Vantel::Orbel
