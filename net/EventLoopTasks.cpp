#include <algorithm>
#include <utility>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/Log.h"
#include "frame/base/ScopeExit.h"
#include "net/EventLoopInternal.h"
#include "thread/BackOff.h"

namespace Vantel::Orbel {

namespace {

/// A queue with more room than this gives it back once a batch needs only a small part of it: a
/// burst must not hold its memory for the life of the loop.
constexpr size_t kKeptTaskCapacity = 16384;
constexpr size_t kUnusedShare = 16;

constexpr int kLockTries = 100;

/// After a batch of this size the loop leaves the queue to the posters for about a microsecond:
/// each taking costs them the cache lines of lock and queue, and in a stream of tasks a few large
/// batches are much cheaper for both sides than many small ones.
constexpr size_t kStreamBatch = 4;
constexpr int kStreamPause = 100;

bool runsEarlier(const Task& left, const Task& right) {
    return left.first != right.first ? left.first : left.priority > right.priority;
}

EventLoop::TaskFunction onlyWhen(EventLoop::TaskFunction task, std::function<bool()> condition) {
    return [task = std::move(task), condition = std::move(condition)] {
        if (condition()) {
            task();
        }
    };
}

}  // namespace

void EventLoop::queueInLoop(TaskFunction task) {
    mInternal->addTask(std::move(task), kPriorityNormal, false);
}

void EventLoop::queueInLoop(TaskFunction task, TaskPriority priority) {
    mInternal->addTask(std::move(task), priority, false);
}

void EventLoop::queueInLoopFirst(TaskFunction task) {
    mInternal->addTask(std::move(task), kPriorityNormal, true);
}

void EventLoop::runInLoop(TaskFunction task) {
    runInLoop(std::move(task), kPriorityNormal);
}

void EventLoop::runInLoop(TaskFunction task, TaskPriority priority) {
    if (isInLoopThread()) {
        task();
    } else {
        queueInLoop(std::move(task), priority);
    }
}

void EventLoop::runInLoopFirst(TaskFunction task) {
    if (isInLoopThread()) {
        task();
    } else {
        queueInLoopFirst(std::move(task));
    }
}

void EventLoop::queueInLoopWhen(TaskFunction task, std::function<bool()> condition) {
    queueInLoop(onlyWhen(std::move(task), std::move(condition)));
}

void EventLoop::runInLoopWhen(TaskFunction task, std::function<bool()> condition) {
    runInLoop(onlyWhen(std::move(task), std::move(condition)));
}

void EventLoop::queueBatchInLoop(const std::vector<TaskFunction>& tasks) {
    mInternal->addBatchTasks(tasks);
}

void EventLoop::runBatchInLoop(const std::vector<TaskFunction>& tasks) {
    if (!isInLoopThread()) {
        queueBatchInLoop(tasks);
        return;
    }
    for (const TaskFunction& task : tasks) {
        task();
    }
}

size_t EventLoop::getPendingTaskCount() const {
    return mInternal->pendingTaskCount();
}

uint64_t EventLoop::getTotalTasksExecuted() const {
    // The base first: it is an earlier value of the count.
    const uint64_t base = mInternal->mExecutedBase.load(std::memory_order_acquire);
    return mInternal->mTotalTasksExecuted.load(std::memory_order_relaxed) - base;
}

uint64_t EventLoop::getTotalTasksQueued() const {
    return mInternal->totalTasksQueued();
}

void EventLoop::resetTaskStatistics() {
    mInternal->resetTaskStatistics();
}

size_t EventLoop::Internal::pendingTaskCount() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mPendingTasks.size();
}

uint64_t EventLoop::Internal::totalTasksQueued() {
    const std::lock_guard<std::mutex> guard(mMutex);
    return mTakenTasks + mPendingTasks.size();
}

void EventLoop::Internal::resetTaskStatistics() {
    const std::lock_guard<std::mutex> guard(mMutex);
    mTakenTasks = uint64_t{0} - mPendingTasks.size();
    mExecutedBase.store(mTotalTasksExecuted.load(std::memory_order_relaxed),
                        std::memory_order_release);
}

/// Under mMutex.
void EventLoop::Internal::appendTask(TaskFunction&& task, TaskPriority priority, bool first,
                                     bool mustRun) {
    mPendingTasks.emplace_back(std::move(task), priority, first, mustRun);
}

/// Under mMutex, after appendTask. True if the caller, once out of the lock, has to call
/// wakeupForTask(). Nobody need wake the loop while it is at work and looks at the queue before it
/// sleeps, nor while a wake-up is pending: the loop clears that under the same lock under which it
/// takes the queue.
bool EventLoop::Internal::enlistWaker() {
    if (!mMustWake || !mWakeup || mWakeup->isWakeupPending()) {
        return false;
    }
    mWakers.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void EventLoop::Internal::addTask(TaskFunction&& task, TaskPriority priority, bool first) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> guard(mMutex);
        appendTask(std::move(task), priority, first, false);
        wake = enlistWaker();
        mNeedSort = mNeedSort || first || priority != kPriorityNormal;
    }
    if (wake) {
        wakeupForTask();
    }
}

void EventLoop::Internal::addBatchTasks(const std::vector<TaskFunction>& tasks) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> guard(mMutex);
        for (const TaskFunction& task : tasks) {
            appendTask(TaskFunction(task), kPriorityNormal, false, false);
        }
        wake = !tasks.empty() && enlistWaker();
    }
    if (wake) {
        wakeupForTask();
    }
}

bool EventLoop::Internal::addCleanup(TaskFunction&& cleanup, bool onlyIfRunning) {
    bool wake = false;
    {
        const std::lock_guard<std::mutex> guard(mMutex);
        if (onlyIfRunning && !mTakesCleanup) {
            return false;
        }
        appendTask(std::move(cleanup), kPriorityNormal, false, true);
        wake = enlistWaker();
        ++mMustRunCount;
    }
    if (wake) {
        wakeupForTask();
    }
    return true;
}

/// The loop thread needs no wake-up for a task that it will look for before it polls again.
void EventLoop::Internal::wakeupForTask() {
    if (!isInLoopThread() || mCallingPendingFunctors.load(std::memory_order_relaxed) ||
        !mLooping.load()) {
        wakeup();
    }
    mWakers.fetch_sub(1, std::memory_order_release);
}

/// Posters hold the lock for nanoseconds. To try again a few times is cheaper than a sleep in the
/// kernel, above all for the poster, who would have to end it with a system call.
std::unique_lock<std::mutex> EventLoop::Internal::lockToTake() {
    std::unique_lock<std::mutex> lock(mMutex, std::try_to_lock);
    for (int i = 0; i < kLockTries && !lock.owns_lock(); ++i) {
        spinPause();
        lock.try_lock();
    }
    if (!lock.owns_lock()) {
        lock.lock();
    }
    return lock;
}

void EventLoop::Internal::doPendingFunctors() {
    for (int i = 0; i < kStreamPause && mLastBatchSize >= kStreamBatch; ++i) {
        spinPause();
    }
    mCallingPendingFunctors.store(true, std::memory_order_relaxed);
    bool needSort = false;
    {
        const std::unique_lock<std::mutex> guard = lockToTake();
        mWakeup->resetWakeup();
        mRunningTasks.swap(mPendingTasks);
        mTakenTasks += mRunningTasks.size();
        // After tasks comes one more turn without sleep: who posts one, mostly posts the next, and
        // needs no system call to wake a loop that is awake.
        // In once mode each wake-up shows, as the event that ends the loop: none may be saved.
        mMustWake = mRunningTasks.empty() || mMode == kLoopOnce;
        mMaySleep = mMustWake;
        needSort = std::exchange(mNeedSort, false);
        mMustRunCount = 0;
    }
    if (needSort) {
        std::stable_sort(mRunningTasks.begin(), mRunningTasks.end(), runsEarlier);
    }
    for (const Task& task : mRunningTasks) {
        runGuarded(task.callback);
    }
    // Still under the flag: a destructor of what a task captured may queue another one.
    mLastBatchSize = mRunningTasks.size();
    mRunningTasks.clear();
    if (mRunningTasks.capacity() > std::max(kKeptTaskCapacity, mLastBatchSize * kUnusedShare)) {
        mRunningTasks.shrink_to_fit();
    }
    mCallingPendingFunctors.store(false, std::memory_order_relaxed);
}

void EventLoop::Internal::runGuarded(const TaskFunction& task) {
    try {
        task();
        mTotalTasksExecuted.store(mTotalTasksExecuted.load(std::memory_order_relaxed) + 1,
                                  std::memory_order_relaxed);
    } catch (const std::exception& exception) {
        ORBEL_LOG_ERROR("Exception in EventLoop task: %s\n", exception.what());
    } catch (...) {
        ORBEL_LOG_ERROR("Unknown exception in EventLoop task\n");
    }
}

void EventLoop::Internal::openCleanups() {
    const std::lock_guard<std::mutex> guard(mMutex);
    mTakesCleanup = true;
}

/// Ends with an empty-handed look at the queue and mTakesCleanup cleared under the same lock: a
/// clean-up that was taken is run, and one that comes later is refused.
void EventLoop::Internal::closeCleanups() {
    // What a clean-up queues is not looked for before the next poll: it must wake the loop.
    mCallingPendingFunctors.store(true, std::memory_order_relaxed);
    const ScopeExit done(
        [this] { mCallingPendingFunctors.store(false, std::memory_order_relaxed); });
    bool wake = false;
    for (;;) {
        std::vector<TaskFunction> cleanups;
        {
            const std::lock_guard<std::mutex> guard(mMutex);
            cleanups = takeCleanups();
            if (cleanups.empty()) {
                mTakesCleanup = false;
                wake = !std::exchange(mMustWake, true) && !mPendingTasks.empty();
                break;
            }
        }
        for (const TaskFunction& cleanup : cleanups) {
            runGuarded(cleanup);
        }
    }
    mMaySleep = true;
    if (wake) {
        wakeup();  // the next loop() is to come to what is left at once
    }
}

/// Under mMutex. The other tasks stay queued.
std::vector<EventLoop::TaskFunction> EventLoop::Internal::takeCleanups() {
    std::vector<TaskFunction> cleanups;
    if (std::exchange(mMustRunCount, 0) == 0) {
        return cleanups;
    }
    const auto kept = std::stable_partition(mPendingTasks.begin(), mPendingTasks.end(),
                                            [](const Task& task) { return !task.mustRun; });
    for (auto task = kept; task != mPendingTasks.end(); ++task) {
        cleanups.push_back(std::move(task->callback));
    }
    mTakenTasks += cleanups.size();
    mPendingTasks.erase(kept, mPendingTasks.end());
    return cleanups;
}

void EventLoop::Internal::dropTasks() {
    for (;;) {
        closeCleanups();
        std::vector<Task> dropped;
        {
            const std::lock_guard<std::mutex> guard(mMutex);
            dropped.swap(mPendingTasks);
            mTakenTasks += dropped.size();
        }
        if (dropped.empty()) {
            return;
        }
    }
}

}  // namespace Vantel::Orbel
