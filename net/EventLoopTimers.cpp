#include <utility>

#include "Vantel/Orbel/EventLoop.h"
#include "net/EventLoopInternal.h"

namespace Vantel::Orbel {

namespace {

/// At once in the loop's thread, else queued and waited for.
template <class T>
T callInLoop(EventLoop& loop, const std::function<T()>& function) {
    return loop.isInLoopThread() ? function() : loop.runInLoopWithResult<T>(function).get();
}

}  // namespace

unsigned long EventLoop::addTimer(std::function<void()> callback, int64_t delayMs, bool repeat) {
    return callInLoop<unsigned long>(*this, [&]() -> unsigned long {
        TimerManager* const timers = mInternal->mTimerManager.get();
        return timers != nullptr ? timers->addTimer(std::move(callback), delayMs, repeat) : 0;
    });
}

unsigned long EventLoop::runInLoopAfter(std::function<void()> callback, int64_t delayMs) {
    return addTimer(std::move(callback), delayMs, false);
}

void EventLoop::cancelTimer(unsigned long id) {
    callInLoop<void>(*this, [&] {
        if (mInternal->mTimerManager) {
            mInternal->mTimerManager->cancelTimer(id);
        }
    });
}

bool EventLoop::modifyTimer(unsigned long id, int64_t delayMs, bool repeat) {
    return callInLoop<bool>(*this, [&] {
        TimerManager* const timers = mInternal->mTimerManager.get();
        return timers != nullptr && timers->modifyTimer(id, delayMs, repeat);
    });
}

bool EventLoop::resetTimer(unsigned long id) {
    return callInLoop<bool>(*this, [&] {
        return mInternal->mTimerManager && mInternal->mTimerManager->resetTimer(id);
    });
}

}  // namespace Vantel::Orbel
