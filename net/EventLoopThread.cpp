#include "Vantel/Orbel/EventLoopThread.h"

#include <atomic>
#include <exception>
#include <thread>
#include <utility>

#include "Vantel/Orbel/CMutex.h"
#include "Vantel/Orbel/CSemaphore.h"
#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CThreadLite.h"
#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/Assert.h"
#include "frame/base/Guard.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

constexpr const char* kDefaultName = "EventLoopThread";
constexpr int kDefaultPriority = 64;
constexpr uint32_t kStartWaitMs = 100;
constexpr int kStopPollMs = 10;

}  // namespace

class EventLoopThread::Internal {
public:
    Internal(const ThreadInitCallback& callback, const std::string& name);

    EventLoop* start();
    void stop();
    bool inOwnThread() { return mThread.getThreadId() == CThread::getCurrentThreadId(); }

    /// On the thread's stack. Set and cleared under mMutex, and used under it by everyone else:
    /// the thread may end, and the loop with it, at any moment.
    std::atomic<EventLoop*> mLoop{nullptr};
    std::atomic<bool> mStopping{false};
    std::atomic<bool> mRunning{false};
    const std::string mName;
    const ThreadInitCallback mInitCallback;
    CMutex mMutex;
    CSemaphore mSemaphore{0};  // posted once the loop stands
    bool mThreadMade = false;  // createThread() worked at least once, and did so last
    CThreadLite mThread;       // last: its destructor waits for the body, which uses all above

private:
    void threadFunc(CThreadLite& thread);
    void runInitCallback(EventLoop* loop);
    bool createThread();
    /// False if there is no loop any more.
    bool requestQuit();
};

EventLoopThread::Internal::Internal(const ThreadInitCallback& callback, const std::string& name)
    : mName(name),
      mInitCallback(callback),
      mThread({this, &Internal::threadFunc}, name.empty() ? kDefaultName : name.c_str(),
              kDefaultPriority, 0, 0) {}

void EventLoopThread::Internal::threadFunc(CThreadLite& thread) {
    EventLoop loop;
    {
        const Guard<CMutex> guard(mMutex);
        mLoop.store(&loop);
    }
    mSemaphore.post(1);
    ORBEL_LOG_INFO(" EventLoopThread[%s] started in thread %d\n", mName.c_str(),
                   CThread::getCurrentThreadId());
    runInitCallback(&loop);
    if (!mStopping.load() && thread.looping()) {
        loop.loop();
    }
    ORBEL_LOG_INFO(" EventLoopThread[%s] stopped\n", mName.c_str());
    const Guard<CMutex> guard(mMutex);
    mLoop.store(nullptr);
    mRunning.store(false);
}

void EventLoopThread::Internal::runInitCallback(EventLoop* loop) {
    if (!mInitCallback) {
        return;
    }
    try {
        mInitCallback(loop);
    } catch (const std::exception& exception) {
        ORBEL_LOG_ERROR("EventLoopThread[%s] init callback exception: %s\n", mName.c_str(),
                        exception.what());
    } catch (...) {
        ORBEL_LOG_ERROR("EventLoopThread[%s] init callback unknown exception\n", mName.c_str());
    }
}

bool EventLoopThread::Internal::createThread() {
    // A loop that ended by itself is not running any more a moment before its thread is over.
    while (mThreadMade && !mThread.isThreadOver()) {
        CThread::sleep(1);
    }
    mSemaphore.clear();
    mThreadMade = mThread.createThread();
    if (!mThreadMade) {
        mThread.cancelThread();  // it counts as looping after a failed start, and would for ever
    }
    return mThreadMade;
}

EventLoop* EventLoopThread::Internal::start() {
    mStopping.store(false);
    mRunning.store(true);
    if (!createThread()) {
        mRunning.store(false);
        return nullptr;
    }
    EventLoop* loop = nullptr;
    while ((loop = mLoop.load()) == nullptr) {
        if (mSemaphore.pend(kStartWaitMs) < 0 && mThread.isThreadOver()) {
            mRunning.store(false);
            return nullptr;
        }
    }
    return loop;
}

bool EventLoopThread::Internal::requestQuit() {
    const Guard<CMutex> guard(mMutex);
    EventLoop* const loop = mLoop.load();
    if (loop != nullptr) {
        loop->quit();
    }
    return loop != nullptr;
}

void EventLoopThread::Internal::stop() {
    if (!mRunning.load()) {
        return;
    }
    mStopping.store(true);
    if (requestQuit() && inOwnThread()) {
        ORBEL_LOG_WARN(
            " EventLoopThread[%s] stop called from its own loop thread; quit requested only\n",
            mName.c_str());
        return;
    }
    mThread.cancelThread();
    while (!mThread.isThreadOver()) {
        CThread::sleep(kStopPollMs);
        requestQuit();  // again each time: loop() forgets a quit that comes just before it begins
    }
    mRunning.store(false);
    mLoop.store(nullptr);
}

EventLoopThread::EventLoopThread(const ThreadInitCallback& callback, const std::string& name)
    : mInternal(std::make_unique<Internal>(callback, name)) {}

EventLoopThread::~EventLoopThread() {
    stop();
    if (!mInternal->inOwnThread()) {
        return;
    }
    // The thread cannot wait for its own end, and uses mInternal up to it: somebody else waits.
    Internal* const internal = mInternal.release();
    try {
        std::thread([internal] { const std::unique_ptr<Internal> owner(internal); }).detach();
    } catch (const std::exception&) {
        // Leaked on purpose: there is no thread to be had, and waiting here would be for ever.
    }
}

EventLoop* EventLoopThread::startLoop() {
    ORBEL_ASSERT(!mInternal->mRunning.load());
    return mInternal->start();
}

void EventLoopThread::stop() {
    mInternal->stop();
}

void EventLoopThread::setSchedulePolicy(bool realtime, int32_t priority, int32_t cpuCore) {
    ORBEL_ASSERT(!mInternal->mRunning.load());
    mInternal->mThread.setSchedulePolicy(priority, realtime);
    if (cpuCore >= 0) {
        mInternal->mThread.setRunCPUCoreId(cpuCore);
    }
}

EventLoop* EventLoopThread::getLoop() const {
    return mInternal->mLoop.load();
}

bool EventLoopThread::isRunning() const {
    return mInternal->mRunning.load();
}

const std::string& EventLoopThread::name() const {
    return mInternal->mName;
}

}  // namespace Vantel::Orbel
