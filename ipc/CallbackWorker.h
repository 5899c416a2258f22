#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace Vantel::Orbel {

class IThreadPool;
class IThreadTask;

/// Runs the read callbacks of a domain in one thread of their own, so that a slow callback holds up
/// no control traffic. The thread starts with the first task.
///
/// Each task counts from post() until it reports onTaskDone() in its destructor, whether it ran or
/// not. The count is raised before the gate is tested: a task posted while the domain leaves is
/// either refused, and uncounted by its own destruction, or it is waited for.
///
/// Threads: post() and onTaskDone() from any; the rest from the one that tears the domain down.
class CallbackWorker {
public:
    explicit CallbackWorker(const std::string& domainName);
    CallbackWorker(const CallbackWorker&) = delete;
    CallbackWorker& operator=(const CallbackWorker&) = delete;
    ~CallbackWorker();

    /// Opens or shuts the gate for new tasks.
    void accept(bool accepting) { mAccepting = accepting; }

    /// Takes the task over; false, with the task deleted, if it cannot be queued.
    bool post(IThreadTask* task);
    void onTaskDone();

    /// Waits until no task is left; with the gate shut.
    void waitCallbackTaskDrain();
    /// Ends the thread.
    void stop();

    /// True in the worker's thread.
    bool isOwnThread() const { return mThread.load() == std::this_thread::get_id(); }

private:
    class AnnounceTask;

    IThreadPool* initWorkerThread();

    const std::string mDomainName;
    std::atomic<bool> mAccepting{false};
    std::atomic<int> mPendingTasks{0};
    std::mutex mTaskMutex;
    std::condition_variable mTaskDrained;
    std::mutex mWorkerMutex;  // over the making of mWorker
    std::atomic<IThreadPool*> mWorker{nullptr};
    std::atomic<std::thread::id> mThread{};  // no thread until the worker has announced itself
};

}  // namespace Vantel::Orbel
