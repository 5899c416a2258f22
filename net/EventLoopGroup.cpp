#include "Vantel/Orbel/EventLoopGroup.h"

#include <mutex>
#include <utility>

#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

using ThreadList = std::vector<std::unique_ptr<EventLoopThread>>;

namespace {

void stopAll(ThreadList threads) {
    for (const auto& thread : threads) {
        thread->stop();
    }
    threads.clear();  // all have ended before the first goes
}

}  // namespace

/// mMutex guards all fields. It is not held while threads start and stop, so that init callbacks
/// and whatever a loop does at its end may ask the group.
class EventLoopGroup::Internal {
public:
    Internal(EventLoop* baseLoop, const std::string& name) : mBaseLoop(baseLoop), mName(name) {}

    bool runBaseLoopInitCallback(const ThreadInitCallback& callback);
    void markStopped();

    EventLoop* const mBaseLoop;
    const std::string mName;
    bool mStarted = false;
    size_t mThreadNum = 0;
    size_t mNext = 0;
    ThreadInitCallback mInitCallback;
    ThreadList mThreads;
    std::vector<EventLoop*> mLoops;
    mutable std::mutex mMutex;
};

bool EventLoopGroup::Internal::runBaseLoopInitCallback(const ThreadInitCallback& callback) {
    if (!callback) {
        return true;
    }
    if (mBaseLoop == nullptr || mBaseLoop->isInLoopThread() || !mBaseLoop->isRunning()) {
        callback(mBaseLoop);
        return true;
    }
    return mBaseLoop
        ->runInLoopWithResult<bool>([this, &callback] {
            callback(mBaseLoop);
            return true;
        })
        .get();
}

void EventLoopGroup::Internal::markStopped() {
    const std::lock_guard<std::mutex> guard(mMutex);
    mStarted = false;
}

EventLoopGroup::EventLoopGroup(EventLoop* baseLoop, const std::string& name)
    : mInternal(std::make_unique<Internal>(baseLoop, name)) {}

EventLoopGroup::~EventLoopGroup() {
    stop();
}

void EventLoopGroup::setThreadNum(size_t threadNum) {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    ORBEL_ASSERT(!mInternal->mStarted);
    mInternal->mThreadNum = threadNum;
}

void EventLoopGroup::setThreadInitCallback(const ThreadInitCallback& callback) {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    ORBEL_ASSERT(!mInternal->mStarted);
    mInternal->mInitCallback = callback;
}

bool EventLoopGroup::start() {
    size_t threadNum = 0;
    ThreadInitCallback callback;
    {
        const std::lock_guard<std::mutex> guard(mInternal->mMutex);
        if (mInternal->mStarted) {
            return true;
        }
        mInternal->mStarted = true;
        mInternal->mThreads.clear();
        mInternal->mLoops.clear();
        mInternal->mNext = 0;
        threadNum = mInternal->mThreadNum;
        callback = mInternal->mInitCallback;
    }
    if (threadNum == 0) {
        const bool ready = mInternal->runBaseLoopInitCallback(callback);
        if (!ready) {
            mInternal->markStopped();
        }
        return ready;
    }

    ThreadList threads;
    std::vector<EventLoop*> loops;
    for (size_t i = 0; i < threadNum; ++i) {
        threads.push_back(std::make_unique<EventLoopThread>(
            callback, mInternal->mName + "-" + std::to_string(i)));
        loops.push_back(threads.back()->startLoop());
        if (loops.back() == nullptr) {
            stopAll(std::move(threads));
            mInternal->markStopped();
            return false;
        }
    }
    {
        const std::lock_guard<std::mutex> guard(mInternal->mMutex);
        if (mInternal->mStarted) {
            mInternal->mThreads = std::move(threads);
            mInternal->mLoops = std::move(loops);
            return true;
        }
    }
    stopAll(std::move(threads));  // somebody stopped the group meanwhile
    return false;
}

void EventLoopGroup::stop() {
    ThreadList threads;
    {
        const std::lock_guard<std::mutex> guard(mInternal->mMutex);
        if (!mInternal->mStarted) {
            return;
        }
        threads = std::move(mInternal->mThreads);
        mInternal->mThreads.clear();
        mInternal->mLoops.clear();
        mInternal->mStarted = false;
        mInternal->mNext = 0;
    }
    stopAll(std::move(threads));
}

EventLoop* EventLoopGroup::getNextLoop() {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    if (mInternal->mLoops.empty()) {
        return mInternal->mBaseLoop;
    }
    EventLoop* const loop = mInternal->mLoops[mInternal->mNext];
    mInternal->mNext = (mInternal->mNext + 1) % mInternal->mLoops.size();
    return loop;
}

EventLoop* EventLoopGroup::getLoopForHash(size_t hash) {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    return mInternal->mLoops.empty() ? mInternal->mBaseLoop
                                     : mInternal->mLoops[hash % mInternal->mLoops.size()];
}

std::vector<EventLoop*> EventLoopGroup::getAllLoops() const {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    return mInternal->mLoops.empty() ? std::vector<EventLoop*>{mInternal->mBaseLoop}
                                     : mInternal->mLoops;
}

bool EventLoopGroup::started() const {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    return mInternal->mStarted;
}

size_t EventLoopGroup::threadNum() const {
    const std::lock_guard<std::mutex> guard(mInternal->mMutex);
    return mInternal->mThreadNum;
}

const std::string& EventLoopGroup::name() const {
    return mInternal->mName;
}

}  // namespace Vantel::Orbel
