#include "ipc/CallbackWorker.h"

#include <chrono>
#include <memory>

#include "Vantel/Orbel/IThreadPool.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

/// How long the thread may take to run its first task before it counts as never started.
constexpr std::chrono::seconds kStartLimit{2};

}  // namespace

/// The first task of the worker: tells which thread it is, and that there is one at all.
class CallbackWorker::AnnounceTask : public IThreadTask {
public:
    explicit AnnounceTask(CallbackWorker& worker) : mWorker(worker) {}
    void run() override { mWorker.mThread = std::this_thread::get_id(); }

private:
    CallbackWorker& mWorker;
};

CallbackWorker::CallbackWorker(const std::string& domainName) : mDomainName(domainName) {}

CallbackWorker::~CallbackWorker() {
    stop();
}

bool CallbackWorker::post(IThreadTask* task) {
    if (task == nullptr) {
        return false;
    }
    ++mPendingTasks;  // before the gate is looked at, see the class
    std::unique_ptr<IThreadTask> owned(task);
    if (!mAccepting) {
        return false;
    }
    IThreadPool* worker = mWorker.load();
    if (worker == nullptr) {
        worker = initWorkerThread();
    }
    if (worker == nullptr || !worker->postTask(task)) {
        return false;
    }
    owned.release();  // the pool's now
    return true;
}

IThreadPool* CallbackWorker::initWorkerThread() {
    std::lock_guard<std::mutex> guard(mWorkerMutex);
    IThreadPool* worker = mWorker.load();
    if (worker != nullptr) {
        return worker;
    }
    worker = IThreadPool::create((mDomainName + "WorkerThr").c_str());
    if (worker == nullptr || !worker->initial(1, 1024, 0, -1)) {
        ORBEL_LOG_ERROR("Failed to initialize callback worker for domain %s\n",
                        mDomainName.c_str());
        IThreadPool::destroy(worker);
        return nullptr;
    }
    auto announce = std::make_unique<AnnounceTask>(*this);
    if (worker->postTask(announce.get())) {
        announce.release();
    }
    mWorker = worker;
    return worker;
}

void CallbackWorker::onTaskDone() {
    const int before = mPendingTasks.fetch_sub(1);
    if (before < 1) {
        mPendingTasks = 0;
        ORBEL_LOG_WARN(" SharedDomainImpl callback task counter underflow, domain=%s\n",
                       mDomainName.c_str());
    }
    if (before == 1) {
        std::lock_guard<std::mutex> guard(mTaskMutex);
        mTaskDrained.notify_all();
    }
}

void CallbackWorker::waitCallbackTaskDrain() {
    const auto drained = [this] { return mPendingTasks.load() == 0; };
    std::unique_lock<std::mutex> lock(mTaskMutex);
    if (mTaskDrained.wait_for(lock, kStartLimit, drained)) {
        return;
    }
    IThreadPool* const worker = mWorker.load();
    if (worker != nullptr && mThread.load() == std::thread::id()) {
        // The pool reports success without a thread too, and its tasks would be waited for without
        // end: taking it down deletes them.
        lock.unlock();
        worker->deInitial();
        lock.lock();
    }
    mTaskDrained.wait(lock, drained);
}

void CallbackWorker::stop() {
    IThreadPool* worker = mWorker.exchange(nullptr);
    if (worker != nullptr) {
        worker->deInitial();
        IThreadPool::destroy(worker);
        mThread = std::thread::id();
    }
}

}  // namespace Vantel::Orbel
