#include "thread/ThreadPoolImpl.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <deque>
#include <string>
#include <vector>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CThreadLite.h"
#include "Vantel/Orbel/SpinSem.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

/// Threads: mInited and mThreads belong to the owner; the queue and its limit to mMutex. The
/// semaphore counts posts, not tasks: one wake-up works the queue off, and later ones find nothing.
class ThreadPoolImpl::Internal {
public:
    explicit Internal(const char* name)
        : mName(name == nullptr || *name == '\0' ? "threadPool" : name) {}
    Internal(const Internal&) = delete;
    Internal& operator=(const Internal&) = delete;
    ~Internal() { dropQueue(); }

    bool post(IThreadTask* task);
    void startThread(int index, int cpuCoreId);
    void endThreads();
    void dropQueue();

    bool mInited = false;
    int mMaxQueue = 1024;
    std::atomic<int> mThreadCount{0};  // this and the next: for whoever looks with a debugger
    std::atomic<int> mIdleCount{0};    // not running a task
    const std::string mName;
    CMutex mMutex;
    // A woken thread takes no lock in it: one that waits on a condition would at once meet the
    // mutex that its waker still holds. No spinning: a pool's thread may share its core.
    SpinSem mSem{0, 0};
    std::vector<CThreadLite*> mThreads;
    std::deque<IThreadTask*> mQueue;

private:
    void threadProc(CThreadLite& thread);
    bool runFront();
};

bool ThreadPoolImpl::Internal::post(IThreadTask* task) {
    {
        Guard<CMutex> guard(mMutex);
        const int size = static_cast<int>(mQueue.size());
        if (mMaxQueue < size) {  // lets one more in than the limit says, on purpose
            ORBEL_LOG_ERROR("threadPool [%s] push too many task process, queueSize = %d\n",
                            mName.c_str(), size);
            return false;
        }
        mQueue.push_back(task);
    }
    mSem.post(1);
    return true;
}

void ThreadPoolImpl::Internal::threadProc(CThreadLite& thread) {
    constexpr long kLookUs = 500'000;
    do {
        mSem.wait(kLookUs);
        while (runFront() && thread.looping()) {
        }
    } while (thread.looping());
}

/// False if there was nothing to run, or a null task.
bool ThreadPoolImpl::Internal::runFront() {
    std::unique_ptr<IThreadTask> task;
    {
        Guard<CMutex> guard(mMutex);
        if (mQueue.empty()) {
            return false;
        }
        task.reset(mQueue.front());
        mQueue.pop_front();
    }
    if (!task) {
        return false;
    }
    --mIdleCount;
    task->run();
    task.reset();
    ++mIdleCount;
    return true;
}

void ThreadPoolImpl::Internal::startThread(int index, int cpuCoreId) {
    char threadName[128];
    std::snprintf(threadName, sizeof threadName, "%s-%d", mName.c_str(), index);
    auto thread = std::make_unique<CThreadLite>(CThreadLite::Proc(this, &Internal::threadProc),
                                                threadName, 64, 0, 0);
    if (cpuCoreId >= 0) {
        thread->setRunCPUCoreId(cpuCoreId);
    }
    if (thread->createThread()) {
        mThreads.push_back(thread.release());
    }
}

void ThreadPoolImpl::Internal::endThreads() {
    for (CThreadLite* thread : mThreads) {
        thread->cancelThread();
    }
    for (size_t i = 0; i < mThreads.size(); ++i) {
        mSem.post(1);  // an idle one need not sleep its half second out
    }
    for (;;) {
        for (CThreadLite*& thread : mThreads) {
            if (thread != nullptr && thread->isThreadOver()) {
                delete thread;
                thread = nullptr;
            }
        }
        std::erase(mThreads, nullptr);
        if (mThreads.empty()) {
            return;
        }
        constexpr int kLookMs = 100;
        CThread::sleep(kLookMs);
    }
}

/// The tasks are deleted outside the lock: a destructor may post.
void ThreadPoolImpl::Internal::dropQueue() {
    std::deque<IThreadTask*> dropped;
    {
        Guard<CMutex> guard(mMutex);
        dropped.swap(mQueue);
    }
    for (IThreadTask* task : dropped) {
        delete task;
    }
}

ThreadPoolImpl::ThreadPoolImpl(const char* name) : mInternal(std::make_unique<Internal>(name)) {}

ThreadPoolImpl::~ThreadPoolImpl() {
    ThreadPoolImpl::deInitial();
}

bool ThreadPoolImpl::initial(int threadCount, int maxQueue, int /*reserved*/, int cpuCoreId) {
    Internal& self = *mInternal;
    if (self.mInited) {
        return true;
    }
    const int count = std::max(threadCount, 1);
    self.mThreadCount = count;  // as asked for, also where a thread could not start
    self.mIdleCount = count;
    for (int index = 0; index < count; ++index) {
        self.startThread(index, cpuCoreId);
    }
    self.mInited = true;
    Guard<CMutex> guard(self.mMutex);
    self.mMaxQueue = maxQueue;
    return true;
}

bool ThreadPoolImpl::deInitial() {
    Internal& self = *mInternal;
    if (self.mInited) {
        self.dropQueue();
        self.endThreads();
        self.mInited = false;
    }
    return true;
}

bool ThreadPoolImpl::postTask(IThreadTask* task) {
    return mInternal->post(task);
}

IThreadPool* IThreadPool::create(const char* name) {
    return new ThreadPoolImpl(name);
}

void IThreadPool::destroy(IThreadPool* pool) {
    delete pool;
}

}  // namespace Vantel::Orbel
