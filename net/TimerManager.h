#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

#include "net/MinHeap.h"

namespace Vantel::Orbel {

class Channel;
class EventLoop;

/// The timers of one EventLoop, all on one timerfd. mTimers is the truth about which exist; the
/// heap has one node for each, with the same expiry but without the callback, save for the timer
/// whose callback runs.
///
/// Threads: the loop's only.
class TimerManager {
public:
    explicit TimerManager(EventLoop* loop);
    TimerManager(const TimerManager&) = delete;
    TimerManager& operator=(const TimerManager&) = delete;
    ~TimerManager();

    unsigned long addTimer(std::function<void()> callback, int64_t delayMs, bool repeat);
    void cancelTimer(unsigned long id);
    bool modifyTimer(unsigned long id, int64_t delayMs, bool repeat);
    bool resetTimer(unsigned long id);
    /// `remainingMs` is 0 for an overdue timer. Unknown ids leave both outputs alone.
    bool getTimerInfo(unsigned long id, long& remainingMs, bool& repeat) const;

    /// The next id; never 0.
    uint64_t getTimerId();
    void handleRead();
    void handleTimers();
    /// Arms the timerfd for the heap's top, or disarms it.
    void resetTimerfd();

private:
    void fire(uint64_t id);
    void pushToHeap(const TimerNode& timer);

    EventLoop* mLoop;
    int32_t mTimerFd;
    std::unique_ptr<Channel> mChannel;
    MinHeap mHeap;
    uint64_t mNextTimerId = 1;
    std::unordered_map<uint64_t, TimerNode> mTimers;
    /// For which expiry the timerfd was armed last; 0 if it is not, or may not be, armed.
    uint64_t mArmedExpiry = 0;
};

}  // namespace Vantel::Orbel
