#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class Channel;

/// When EventLoop::loop() returns. quit() ends any of them.
enum EventLoopMode : int32_t {
    kLoopForever = 0,  ///< until quit()
    kLoopOnce = 1,     ///< until an iteration had events (a task from another thread counts as one)
    kLoopTimed = 2,    ///< until setTimeout() milliseconds have passed
};

/// A larger number runs earlier within one batch of tasks; any number is taken.
enum TaskPriority : int32_t {
    kPriorityLow = 0,     ///< behind all others of the batch
    kPriorityNormal = 1,  ///< of every task that is queued without one
    kPriorityHigh = 2,    ///< before all others but the "first" tasks
};

/// The reactor: polls the channels of one thread, runs the tasks that any thread queues, and keeps
/// the timers. It belongs to the thread that constructs it; that thread also destroys it, while it
/// does not loop, and before it every channel in it has been removed.
///
/// Threads: quit, the queries of state, the task and the timer operations from any thread; the rest
/// in the loop's own. A process that forks executes another program in the child: loops do not
/// survive fork.
class ORBEL_API EventLoop {
public:
    /// What an empty one throws counts as the task's own exception. A queued one is destroyed in
    /// the thread of the loop, after the batch that it ran in.
    using TaskFunction = std::function<void()>;

    /// A loop for the calling thread. Ends the process if the system has no descriptor for the
    /// poller or the wake-up; without one for the timers there is an error line, and timers never
    /// fire.
    EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    /// Asserts that the loop does not run. Queued tasks are destroyed without being run.
    ~EventLoop();

    /// Runs until the mode or quit() ends it, and may be called again then. What a channel or timer
    /// callback throws leaves loop(), which cannot be entered again after that.
    void loop();

    /// Asks a running loop to end after its present iteration. Forgotten by the next loop().
    void quit();

    /// Between the begin and the end of loop().
    bool isRunning() const;
    /// From quit() to the begin of the next loop().
    bool isQuitting() const;
    /// Whether the caller is the thread that constructed the loop, running or not.
    bool isInLoopThread() const;

    ///@{
    /// Only while the loop does not run (asserted). `timeoutMs` is the run time of kLoopTimed.
    void setMode(EventLoopMode mode);
    void setTimeout(int64_t timeoutMs);
    ///@}
    ///@{
    /// As set, kLoopForever and 0 at first.
    EventLoopMode getMode() const;
    int64_t getTimeout() const;
    ///@}
    /// Milliseconds since loop() began, 0 while it does not run.
    int64_t getRunningTime() const;

    /// Tasks that wait, without those of the batch that runs.
    size_t getPendingTaskCount() const;
    /// Tasks that returned; those that threw do not count.
    uint64_t getTotalTasksExecuted() const;
    /// All that were queued since the last reset; tasks that a run function ran at once are none.
    uint64_t getTotalTasksQueued() const;
    /// Puts both totals to 0; tasks that wait count as executed later, not as queued.
    void resetTaskStatistics();

    /// For Channel: loop thread only. False if the poller refused.
    bool updateChannel(Channel* channel);
    /// As updateChannel; the channel gets no further event of the present iteration.
    bool removeChannel(Channel* channel);

    ///@{
    /// Queue a task for the next batch. What a queued task throws is logged, and the task does not
    /// count as executed. "First" tasks precede all others, whatever the priority.
    void queueInLoop(TaskFunction task);
    void queueInLoop(TaskFunction task, TaskPriority priority);
    void queueInLoopFirst(TaskFunction task);
    ///@}

    ///@{
    /// In the loop's thread the task runs before the call returns, past any queue, and what it
    /// throws reaches the caller; from another thread it is queued.
    void runInLoop(TaskFunction task);
    void runInLoop(TaskFunction task, TaskPriority priority);
    void runInLoopFirst(TaskFunction task);
    ///@}

    ///@{
    /// The condition is asked once, when the task's turn has come; if it says no, the task is
    /// dropped.
    void queueInLoopWhen(TaskFunction task, std::function<bool()> condition);
    void runInLoopWhen(TaskFunction task, std::function<bool()> condition);
    ///@}

    ///@{
    /// All tasks under one lock and with one wake-up, in their order. In the loop's thread,
    /// runBatchInLoop() runs them one by one, and an exception ends it.
    void queueBatchInLoop(const std::vector<TaskFunction>& tasks);
    void runBatchInLoop(const std::vector<TaskFunction>& tasks);
    ///@}

    /// runInLoop with a result. The future holds what `function` returns or throws. It holds a
    /// broken promise if the loop is destroyed first, and is never ready if the loop just stops.
    template <class T>
    std::future<T> runInLoopWithResult(std::function<T()> function);

    /// Timers of the loop. From another thread each call waits until the loop has done it, without
    /// limit: on a loop that does not run yet it blocks until it does.
    ///
    /// Fires `callback` in the loop after `delayMs` milliseconds, at least about 1; then, if
    /// `repeat` is set, again `delayMs` after each end of the callback. Returns an id above 0.
    unsigned long addTimer(std::function<void()> callback, int64_t delayMs, bool repeat);
    /// addTimer() without repetition.
    unsigned long runInLoopAfter(std::function<void()> callback, int64_t delayMs);
    /// Nothing happens if the id is not known. Allowed in the timer's own callback.
    void cancelTimer(unsigned long id);
    /// Starts the count anew, with another delay. False if the id is not known; a timer that does
    /// not repeat is no longer known once its callback runs.
    bool modifyTimer(unsigned long id, int64_t delayMs, bool repeat);
    /// modifyTimer with the timer's own values.
    bool resetTimer(unsigned long id);

private:
    class ORBEL_LOCAL Internal;
    friend class StopInLoop;

    std::unique_ptr<Internal> mInternal;
};

template <class T>
std::future<T> EventLoop::runInLoopWithResult(std::function<T()> function) {
    auto promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
    runInLoop([promise, function = std::move(function)] {
        try {
            if constexpr (std::is_void_v<T>) {
                function();
                promise->set_value();
            } else {
                promise->set_value(function());
            }
        } catch (...) {
            promise->set_exception(std::current_exception());
        }
    });
    return future;
}

}  // namespace Vantel::Orbel
