#include "net/TimerManager.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/Channel.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

constexpr uint64_t kLatestExpiry = std::numeric_limits<int64_t>::max();
constexpr int64_t kShortestArmUs = 1000;  // a timer that is due already must not disarm the timerfd

/// `delayMs` after now, cut to what the clock can express.
uint64_t expiryAfter(int64_t delayMs) {
    const auto now = static_cast<int64_t>(CTime::getCurrentMicroSecond());
    int64_t delayUs = 0;
    int64_t expiry = 0;
    if (__builtin_mul_overflow(delayMs, int64_t{1000}, &delayUs) ||
        __builtin_add_overflow(now, delayUs, &expiry)) {
        return delayMs < 0 ? 0 : kLatestExpiry;
    }
    return static_cast<uint64_t>(std::max<int64_t>(expiry, 0));
}

}  // namespace

TimerManager::TimerManager(EventLoop* loop)
    : mLoop(loop), mTimerFd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (mTimerFd < 0) {
        ORBEL_LOG_ERROR("Failed to create timer fd\n");
        return;
    }
    mChannel = std::make_unique<Channel>(mLoop, mTimerFd);
    mChannel->setReadCallback([this] { handleRead(); });
    mChannel->enableReading();
}

TimerManager::~TimerManager() {
    if (mChannel && mChannel->isAddedToLoop()) {
        mChannel->disableAll();
        mChannel->remove();
    }
    mChannel.reset();
    if (mTimerFd >= 0) {
        ::close(mTimerFd);
    }
}

unsigned long TimerManager::addTimer(std::function<void()> callback, int64_t delayMs, bool repeat) {
    TimerNode timer;
    timer.expiry = expiryAfter(delayMs);
    timer.repeat = repeat;
    timer.intervalMs = delayMs;
    timer.id = getTimerId();
    timer.callback = std::move(callback);
    const uint64_t id = timer.id;
    pushToHeap(timer);
    mTimers[id] = std::move(timer);
    if (mHeap.top().id == id) {
        resetTimerfd();
    }
    return id;
}

void TimerManager::cancelTimer(unsigned long id) {
    const auto found = mTimers.find(id);
    if (found == mTimers.end()) {
        return;
    }
    // What the callback captured is destroyed last: its destructor may come back here.
    const TimerNode cancelled = std::move(found->second);
    mTimers.erase(found);
    mHeap.removeTimer(id);
    resetTimerfd();
}

bool TimerManager::modifyTimer(unsigned long id, int64_t delayMs, bool repeat) {
    const auto found = mTimers.find(id);
    if (found == mTimers.end()) {
        return false;
    }
    TimerNode& timer = found->second;
    timer.expiry = expiryAfter(delayMs);
    timer.repeat = repeat;
    timer.intervalMs = delayMs;
    TimerNode node;
    node.expiry = timer.expiry;
    node.id = id;
    mHeap.updateTimer(id, node);  // not there while its own callback runs; pushed again after it
    resetTimerfd();
    return true;
}

bool TimerManager::resetTimer(unsigned long id) {
    const auto found = mTimers.find(id);
    return found != mTimers.end() &&
           modifyTimer(id, found->second.intervalMs, found->second.repeat);
}

bool TimerManager::getTimerInfo(unsigned long id, long& remainingMs, bool& repeat) const {
    const auto found = mTimers.find(id);
    if (found == mTimers.end()) {
        return false;
    }
    const uint64_t now = CTime::getCurrentMicroSecond();
    const uint64_t expiry = found->second.expiry;
    remainingMs = expiry > now ? static_cast<long>((expiry - now) / 1000) : 0;
    repeat = found->second.repeat;
    return true;
}

uint64_t TimerManager::getTimerId() {
    if (mNextTimerId == 0) {
        mNextTimerId = 1;
    }
    return mNextTimerId++;
}

void TimerManager::handleRead() {
    mArmedExpiry = 0;  // it has fired, or is about to: one shot
    uint64_t expirations = 0;
    const ssize_t count = ::read(mTimerFd, &expirations, sizeof expirations);
    if (count != static_cast<ssize_t>(sizeof expirations)) {
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        ORBEL_LOG_ERROR("TimerManager::handleRead() read %d bytes instead of 8\n",
                        static_cast<int>(count));
    }
    handleTimers();
}

void TimerManager::handleTimers() {
    // Read once: what becomes due meanwhile waits for the next pass, which bounds this one.
    const uint64_t now = CTime::getCurrentMicroSecond();
    while (!mHeap.empty() && mHeap.top().expiry <= now) {
        const TimerNode node = mHeap.pop();
        const auto found = mTimers.find(node.id);
        if (found != mTimers.end() && found->second.expiry == node.expiry) {
            fire(node.id);
        }
    }
    mArmedExpiry = 0;
    resetTimerfd();
}

/// Runs a timer whose node has just left the heap. What its callback throws goes up to the caller
/// of loop(), and a repeating timer is then lost from the heap.
void TimerManager::fire(uint64_t id) {
    const auto found = mTimers.find(id);
    if (!found->second.repeat) {
        // Gone before its callback runs, which so cannot cancel or modify it any more.
        const TimerNode timer = std::move(found->second);
        mTimers.erase(found);
        timer.callback();
        return;
    }
    const TimerNode before = found->second;  // the callback may cancel its timer while it runs
    before.callback();
    const auto again = mTimers.find(id);
    if (again == mTimers.end()) {
        return;
    }
    TimerNode& timer = again->second;
    if (timer.expiry == before.expiry && timer.intervalMs == before.intervalMs && timer.repeat) {
        // From the end of the callback: the period drifts by its run time, nothing is caught up.
        timer.expiry = expiryAfter(timer.intervalMs);
    }
    pushToHeap(timer);
}

void TimerManager::pushToHeap(const TimerNode& timer) {
    TimerNode node;
    node.expiry = timer.expiry;
    node.id = timer.id;
    mHeap.push(node);
}

void TimerManager::resetTimerfd() {
    const uint64_t expiry = mHeap.empty() ? 0 : mHeap.top().expiry;
    if (expiry == mArmedExpiry && expiry != 0) {
        return;  // armed for that moment already; saves the system call of most cancellations
    }
    itimerspec when{};
    if (!mHeap.empty()) {
        const auto now = static_cast<int64_t>(CTime::getCurrentMicroSecond());
        const int64_t delta = std::max(static_cast<int64_t>(expiry) - now, kShortestArmUs);
        when.it_value.tv_sec = delta / 1000000;
        when.it_value.tv_nsec = delta % 1000000 * 1000;
    }
    mArmedExpiry = expiry;
    if (::timerfd_settime(mTimerFd, 0, &when, nullptr) != 0) {
        mArmedExpiry = 0;
        ORBEL_LOG_ERROR("timerfd_settime failed: %s\n", std::strerror(errno));
    }
}

}  // namespace Vantel::Orbel
