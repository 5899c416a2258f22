#include "Vantel/Orbel/EventLoop.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "Vantel/Orbel/CThread.h"
#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/Channel.h"
#include "frame/base/Assert.h"
#include "frame/base/ScopeExit.h"
#include "net/EventLoopInternal.h"

namespace Vantel::Orbel {

namespace {

constexpr size_t kActiveChannelRoom = 64;
constexpr int64_t kPollCapMs = 1000;  // an idle loop turns once a second

int64_t nowUs() {
    return static_cast<int64_t>(CTime::getCurrentMicroSecond());
}

}  // namespace

EventLoop::EventLoop() : mInternal(std::make_unique<Internal>(this)) {
    // Only now: these register channels, which ask this loop for its poller.
    mInternal->mTimerManager = std::make_unique<TimerManager>(this);
    mInternal->mWakeup = std::make_unique<EventFd>(this, 0UL, kEventFdCounter);
    if (mInternal->mWakeup->fd() < 0) {
        std::abort();
    }
    mInternal->mWakeup->enableReading();
}

EventLoop::~EventLoop() {
    ORBEL_ASSERT(!mInternal->mLooping.load());
    mInternal->tearDown();
    mInternal.reset();
}

void EventLoop::loop() {
    ORBEL_ASSERT(!mInternal->mLooping.load());
    ORBEL_ASSERT(isInLoopThread());
    mInternal->run();
}

void EventLoop::quit() {
    mInternal->quit();
}

bool EventLoop::isRunning() const {
    return mInternal && mInternal->mLooping.load();
}

bool EventLoop::isQuitting() const {
    return !mInternal || mInternal->mQuit.load();
}

bool EventLoop::isInLoopThread() const {
    return mInternal && mInternal->isInLoopThread();
}

void EventLoop::setMode(EventLoopMode mode) {
    ORBEL_ASSERT(!mInternal->mLooping.load());
    mInternal->mMode = mode;
}

void EventLoop::setTimeout(int64_t timeoutMs) {
    ORBEL_ASSERT(!mInternal->mLooping.load());
    mInternal->mTimeout = timeoutMs;
}

EventLoopMode EventLoop::getMode() const {
    return mInternal->mMode;
}

int64_t EventLoop::getTimeout() const {
    return mInternal->mTimeout;
}

int64_t EventLoop::getRunningTime() const {
    return mInternal->mLooping.load() ? mInternal->elapsedMs() : 0;
}

bool EventLoop::updateChannel(Channel* channel) {
    ORBEL_ASSERT(channel->fd() >= 0);
    return mInternal->mPoller->updateChannel(channel);
}

bool EventLoop::removeChannel(Channel* channel) {
    ORBEL_ASSERT(isInLoopThread());
    if (!mInternal->mPoller->removeChannel(channel)) {
        return false;
    }
    mInternal->removeActiveChannel(channel);
    return true;
}

EventLoop::Internal::Internal(EventLoop* loop)
    : mPoller(Poller::newDefaultPoller(loop)),
      mThreadId(static_cast<uint32_t>(CThread::getCurrentThreadId())) {}

EventLoop::Internal::~Internal() = default;

void EventLoop::Internal::tearDown() {
    // Tasks and timer callbacks own what they captured, down to connections with a channel in this
    // loop and destructors that queue a last task: they go while the poller still answers.
    dropTasks();
    mTimerManager.reset();
    dropTasks();
    while (mWakers.load(std::memory_order_acquire) != 0) {
        std::this_thread::yield();
    }
    mWakeup.reset();
    dropTasks();
    mPoller.reset();
}

bool EventLoop::Internal::isInLoopThread() const {
    return static_cast<uint32_t>(CThread::getCurrentThreadId()) == mThreadId;
}

int64_t EventLoop::Internal::elapsedMs() const {
    return (nowUs() - mStartTime.load(std::memory_order_relaxed)) / 1000;
}

void EventLoop::Internal::run() {
    mLooping.exchange(true);
    mQuit.exchange(false);  // a quit() before this is forgotten, on purpose
    mStartTime.store(nowUs(), std::memory_order_relaxed);
    openCleanups();
    Poller::ChannelList active;
    active.reserve(kActiveChannelRoom);
    int32_t timeoutMs = 0;
    while (shouldContinueLoop() && nextPollTimeout(timeoutMs)) {
        active.clear();
        mPoller->poll(timeoutMs, &active);
        const size_t activeCount = active.size();
        dispatch(active);
        updateStatistics(activeCount);
        doPendingFunctors();
        if (mMode == kLoopOnce && activeCount != 0) {
            break;
        }
    }
    closeCleanups();
    mLooping.exchange(false);
}

bool EventLoop::Internal::shouldContinueLoop() const {
    if (mQuit.load()) {
        return false;
    }
    return mMode != kLoopTimed || elapsedMs() < mTimeout;
}

bool EventLoop::Internal::nextPollTimeout(int32_t& timeoutMs) const {
    int64_t waitMs = kPollCapMs;
    if (mMode == kLoopTimed && mTimeout >= 1) {
        const int64_t remainingMs = mTimeout - elapsedMs();
        if (remainingMs < 1) {
            return false;
        }
        waitMs = std::min(remainingMs, kPollCapMs);
    }
    timeoutMs = mMaySleep ? static_cast<int32_t>(waitMs) : 0;  // tasks wait
    return true;
}

void EventLoop::Internal::dispatch(Poller::ChannelList& active) {
    mEventHandling = true;
    mActiveChannels = &active;
    // Also when a callback throws: the list dies with loop(), and channels may be removed later.
    const ScopeExit done([this] {
        mEventHandling = false;
        mActiveChannels = nullptr;
        mCurrentActiveChannel = nullptr;
    });
    // By index: an entry becomes null when a callback removes its channel.
    for (size_t i = 0; i < active.size(); ++i) {
        if (active[i] != nullptr) {
            mCurrentActiveChannel = active[i];
            mCurrentActiveChannel->handleEvent();
        }
    }
}

void EventLoop::Internal::removeActiveChannel(const Channel* channel) {
    if (!mEventHandling || mActiveChannels == nullptr || channel == nullptr) {
        return;
    }
    std::replace(mActiveChannels->begin(), mActiveChannels->end(), const_cast<Channel*>(channel),
                 static_cast<Channel*>(nullptr));
    if (mCurrentActiveChannel == channel) {
        mCurrentActiveChannel = nullptr;
    }
}

void EventLoop::Internal::quit() {
    if (isInLoopThread()) {
        mQuit.exchange(true);
        return;
    }
    mWakers.fetch_add(1, std::memory_order_relaxed);
    mQuit.exchange(true);
    wakeup();
    mWakers.fetch_sub(1, std::memory_order_release);
}

void EventLoop::Internal::wakeup() {
    if (mWakeup) {
        mWakeup->wakeupOnce();
    }
}

}  // namespace Vantel::Orbel
