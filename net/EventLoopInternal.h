#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "Vantel/Orbel/EventFd.h"
#include "Vantel/Orbel/EventLoop.h"
#include "Vantel/Orbel/Poller.h"
#include "net/TimerManager.h"

namespace Vantel::Orbel {

/// One queued task.
struct Task {
    Task(EventLoop::TaskFunction&& task, TaskPriority rank, bool isFirst, bool isCleanup)
        : callback(std::move(task)), priority(rank), first(isFirst), mustRun(isCleanup) {}

    EventLoop::TaskFunction callback;
    TaskPriority priority;
    bool first;
    bool mustRun;  ///< clean-up, which the end of the loop does not lose
};

/// Which threads touch what: the atomics and what mMutex guards, any; the rest, the loop's own.
/// mMutex is never held while a task runs or is destroyed.
class EventLoop::Internal {
public:
    static constexpr size_t kCacheLine = 64;

    explicit Internal(EventLoop* loop);
    Internal(const Internal&) = delete;
    Internal& operator=(const Internal&) = delete;
    ~Internal();

    bool isInLoopThread() const;
    int64_t elapsedMs() const;

    void run();
    /// What the destructor of the loop does; queries of the loop are still answered meanwhile.
    void tearDown();
    void quit();
    void wakeup();
    void removeActiveChannel(const Channel* channel);

    void addTask(TaskFunction&& task, TaskPriority priority, bool first);
    void addBatchTasks(const std::vector<TaskFunction>& tasks);
    /// False, with nothing queued, if `onlyIfRunning` and the loop would not come to it by itself.
    bool addCleanup(TaskFunction&& cleanup, bool onlyIfRunning);
    size_t pendingTaskCount();
    uint64_t totalTasksQueued();
    void resetTaskStatistics();

    // Three groups of fields on cache lines of their own: a poster must not fetch, for each task,
    // the line that the loop writes for each task.

    // Seldom written.
    std::atomic<bool> mLooping{false};
    std::atomic<bool> mQuit{false};
    EventLoopMode mMode = kLoopForever;
    int64_t mTimeout = 0;
    std::atomic<int64_t> mStartTime{0};
    std::unique_ptr<Poller> mPoller;
    std::unique_ptr<TimerManager> mTimerManager;
    std::unique_ptr<EventFd> mWakeup;
    /// How many are about to wake the loop. Raised before the loop can see what they want of it,
    /// and lowered as the last thing they touch: its destructor waits for them, since their very
    /// task, or quit, may be what ends the loop.
    std::atomic<uint32_t> mWakers{0};
    const uint32_t mThreadId;

    // Under mMutex. Lock and queue fill one line, the only one beside its task that a post writes:
    // so the mutex is one that lies in place.
    alignas(kCacheLine) std::mutex mMutex;
    std::vector<Task> mPendingTasks;  ///< in the order of queueing
    bool mNeedSort = false;
    bool mMustWake = true;       ///< else the loop looks at the queue before it sleeps
    bool mTakesCleanup = false;  ///< from the start of loop() until its last look at the queue
    size_t mMustRunCount = 0;    ///< how many of mPendingTasks must run
    uint64_t mTakenTasks = 0;    ///< queued since the last reset, without mPendingTasks; may wrap
    std::atomic<uint64_t> mExecutedBase{0};  ///< read without it

    // Written by the loop thread.
    /// A reset only moves mExecutedBase, so that neither an increment nor a reset gets lost.
    alignas(kCacheLine) std::atomic<uint64_t> mTotalTasksExecuted{0};
    std::atomic<bool> mCallingPendingFunctors{false};  ///< read by no other thread: relaxed
    bool mMaySleep = true;  ///< mMustWake as the loop thread left it: no lock to read its own
    bool mEventHandling = false;
    uint64_t mTotalEvents = 0;
    Poller::ChannelList* mActiveChannels = nullptr;
    Channel* mCurrentActiveChannel = nullptr;

private:
    bool shouldContinueLoop() const;
    bool nextPollTimeout(int32_t& timeoutMs) const;
    void dispatch(Poller::ChannelList& active);
    void updateStatistics(size_t activeCount) { mTotalEvents += activeCount; }
    void doPendingFunctors();
    void appendTask(TaskFunction&& task, TaskPriority priority, bool first, bool mustRun);
    std::unique_lock<std::mutex> lockToTake();
    bool enlistWaker();
    void wakeupForTask();
    void runGuarded(const TaskFunction& task);
    void openCleanups();
    void closeCleanups();
    std::vector<TaskFunction> takeCleanups();
    /// Runs the clean-up and destroys the rest, until nothing is queued.
    void dropTasks();

    size_t mLastBatchSize = 0;
    std::vector<Task> mRunningTasks;  ///< the batch at work; kept for its capacity
};

}  // namespace Vantel::Orbel
