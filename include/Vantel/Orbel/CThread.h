#pragma once

#include <cstdint>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class ThreadInternal;

/// A long-lived thread with a name, a scheduling class, a priority and a deadline that a watcher
/// can check. Derive from it and implement threadProc() as a loop on looping(). One object can be
/// started again after its thread has ended.
///
/// A deriving class stops the thread in its own destructor: by the time this one runs, threadProc()
/// is gone. The threads are detached, nobody joins them.
///
/// Threads: createThread, destroyThread and cancelThread from any thread, as long as the object
/// lives; the queries from any thread; the static operations concern the calling thread.
class ORBEL_API CThread {
public:
    /// Starts nothing. `name` is cut at 31 characters, null is "noNamed". `priority` goes from 1
    /// (highest) to 127 (lowest). `policy` is 0 for normal scheduling, where the priority becomes
    /// a nice value of -19 to 19, or 1 for first-in-first-out real time, which may need a
    /// privilege. A normal thread that a real-time thread starts inherits its scheduling.
    /// `stackSize` is in bytes, at least 16384; 0 or less keeps the system's default.
    CThread(const char* name, int priority, int policy, int stackSize);
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;
    /// Stops the thread if it runs and waits for its end.
    virtual ~CThread();

    /// Starts the thread; waits for the end of an earlier run that is on its way out. False, with
    /// a line in the log, if it runs already or the system refuses; after a refusal looping()
    /// stays true.
    bool createThread();

    /// Asks the thread to stop and waits until it has ended. From the thread itself it only asks.
    /// False, with a warning, if it is not running or has been asked before.
    bool destroyThread();

    /// Asks the thread to stop and returns at once. False, with a warning, if it is not running.
    bool cancelThread();

    /// destroyThread(); false, since there is nothing to join.
    bool terminateThread();

    /// True while the body may go on.
    bool looping() const;

    /// True once the thread has ended or was never started.
    bool isThreadOver();

    ///@{
    /// The name as stored here; the kernel's name of the thread is another thing, see
    /// setCurrentThreadName(). Valid until setThreadName() or the end of the object.
    const char* getThreadName();
    /// Replaces the stored name, by the rules of the constructor.
    void setThreadName(const char* name);
    ///@}

    /// The kernel's thread id, -1 until the thread runs.
    int getThreadId();

    /// Sets a deadline `ms` milliseconds from now; 0 takes it away. For the thread itself.
    void setTimeout(int ms);
    /// Sets a deadline `ms` milliseconds after `now`, a reading of CTime::getCurrentMilliSecond()
    /// cut to 32 bits; a `now` of 0 takes the deadline away. After 24.8 days of uptime such a
    /// reading is negative and the deadline never passes.
    void setTimeout(uint64_t ms, int now);
    /// True if there is a deadline and it has passed.
    bool isTimeout();

    /// Binds the thread to one processor, from its next start on, once and for all. False for a
    /// number that is negative or that the machine doesn't have, and if it is bound already.
    bool setRunCPUCoreId(int core);

    /// For the next start; without effect while the thread runs. A `priority` below 1 keeps the
    /// present one.
    void setSchedulePolicy(int priority, bool realtime);

    /// Names the calling thread for the kernel, which keeps 15 characters. False for null.
    static bool setCurrentThreadName(const char* name);

    /// The kernel's id of the calling thread.
    static int getCurrentThreadId();

    /// setTimeout() of the calling thread; false if it is no CThread.
    static bool setCurrentTimeout(int ms);

    /// Sleeps `ms` milliseconds, however many signals arrive; below 1 it only yields.
    static void sleep(int ms);

    /// Lets the calling thread run for `percent` (1 to 100, asserted) of the time, by means of
    /// SIGUSR2, which the process must not use otherwise. 100 ends it.
    static void load(int percent);

    /// Sleeps `ns` nanoseconds, however many signals arrive.
    static void interruptWait(uint64_t ns);

protected:
    /// The body, in the new thread.
    virtual void threadProc() = 0;

private:
    friend class ThreadInternal;

    ThreadInternal* mInternal;
};

}  // namespace Vantel::Orbel
