#pragma once

#include <atomic>
#include <cstdint>

#include "Vantel/Orbel/CRecursiveMutex.h"
#include "Vantel/Orbel/CThread.h"
#include "time/TimerInternal.h"

namespace Vantel::Orbel {

class CTimerThread;

/// Walks the sorted list of armed timers ten times a second and hands each due timer to an idle
/// pooled thread.
///
/// One recursive mutex guards everything here and in the timers; callbacks run outside of it. No
/// other lock of the library is held when it is taken; under it those of the threads are.
///
/// At exit the manager shuts down, but its memory stays: pooled threads that are in a callback just
/// then come back later, find it shut down and stay out.
class TimerManagerInternal : public CThread {
public:
    /// Made at first use, that is, when the library is loaded.
    static TimerManagerInternal* instance();

    /// At the exit of the process: no timer fires any more.
    void shutDown();
    /// True also with lostThreads().
    bool isShutDown() const { return mShutDown; }

    /// In the child of a fork, unless no timer was started before it: none of the threads lives
    /// there, and the mutex may be held for ever.
    bool lostThreads() const { return mLostThreads; }

    // The rest needs `mutex`, except where it says otherwise.

    /// Brings nowMs up to date where no tick does: before the manager's thread runs.
    void refreshNow();
    /// Puts `timer` in its place, in front of any with an equal time, and starts the manager's
    /// thread if it isn't running.
    void insert(TimerInternal& timer);
    void remove(TimerInternal& timer);
    /// Hands the timer to a pooled thread. False if its last run goes on or no thread can be had:
    /// that firing is lost.
    bool run(TimerInternal& timer);

    /// From a pooled thread, without the mutex: threads above the limit end here.
    void giveBack(CTimerThread* thread);

    /// Without the mutex.
    void printTimers();

    int cpuCoreId = -1;
    int idleLimit = -1;  // below 1: none
    int idleCount = 0;
    CTimerThread* idleHead = nullptr;
    uint64_t nowMs;
    TimerInternal* timers = nullptr;  // ascending nextMs
    CRecursiveMutex mutex;
    std::atomic<int> threadCount{0};  // pooled ones, idle and busy

private:
    TimerManagerInternal();

    void threadProc() override;
    /// The next sleep in milliseconds.
    int runDueTimers(int sleepMs);
    bool poolExhausted() const;
    CTimerThread* takeThread();
    /// The threads behind the limit, out of the idle list.
    CTimerThread* cutOffIdle();
    void endThreads(CTimerThread* first);
    void forked();

    bool mRunning = false;  // looping() also stays true when the start failed
    std::atomic<bool> mShutDown{false};
    std::atomic<bool> mLostThreads{false};
};

}  // namespace Vantel::Orbel
