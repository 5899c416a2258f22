#pragma once

#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "log/SignalInfo.h"

namespace Vantel::Log {

/// Catches fatal signals in the thread that they hit, and has them reported by a thread of its
/// own: what is hit may hold any lock and have little stack left, and the report takes seconds.
/// The thread that is hit waits for the end of the report, at most 10 seconds, then the signal is
/// raised again with its default action, so that the process ends with its true status.
///
/// What runs in the signal handler (a mutex, condition variables, backtrace()) is not
/// async-signal-safe; a crash inside it hangs. The stack is that of the thread that is hit: its
/// overflow is not reported.
///
/// Threads: stop() from one at a time, beside no start(); the rest from any.
///
/// Fork: a child that does not exec has no reporting thread. Signals take their default action
/// there at once, and so they do after stop().
class AsyncSignalHandler {
public:
    using Report = std::function<void(SignalInfo&)>;

    /// Made at first use, stopped when the process exits, never destroyed.
    static AsyncSignalHandler& instance();

    AsyncSignalHandler(const AsyncSignalHandler&) = delete;
    AsyncSignalHandler& operator=(const AsyncSignalHandler&) = delete;

    /// Starts the reporting thread; true if it runs already. False if the system refuses, and in
    /// a forked child.
    bool start();

    /// Lets the reporting thread finish what it has been given, and joins it.
    void stop();

    /// Catches `signo` from now on and has it reported by `proc`, in the reporting thread.
    /// Replaces an earlier one. Ignores a `signo` below 1 and an empty `proc`.
    void setHandler(int signo, Report proc);

    /// Gives `signo` its default action back. Ignores a `signo` below 1.
    void removeHandler(int signo);

private:
    AsyncSignalHandler() = default;

    static void onSignal(int signo);
    void waitForReport(int signo);
    void work();

    static constexpr uint64_t kRingSize = 128;  // a power of two

    // Order of the rest: mMutex guards all of it. mRunning and mBusy are atomic because conditions
    // read them; both are written under the mutex.
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mBusy{false};  // a record is being reported
    std::thread mThread;
    SignalInfo mRing[kRingSize];
    uint64_t mHead = 0;
    uint64_t mTail = 0;
    uint64_t mCount = 0;
    std::mutex mMutex;
    std::condition_variable mWorkCond;  // a record has been stored
    std::condition_variable mDoneCond;  // a record has been reported
    std::map<int, Report> mHandlers;
    std::atomic<pid_t> mPid{0};  // whose reporting thread it is; asked before the lock is taken
    sigset_t mReportMask{};      // the signals that are blocked during a report: the starter's
};

}  // namespace Vantel::Log
