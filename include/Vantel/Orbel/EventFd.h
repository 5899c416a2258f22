#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class Channel;
class EventLoop;

/// What a read takes.
enum EventFdType : int32_t {
    kEventFdCounter = 0,    ///< a read takes the whole count
    kEventFdSemaphore = 2,  ///< a read takes 1 from the count
};

/// A Linux eventfd in an EventLoop: a counter that wakes the loop.
///
/// Threads: write, notify, wakeup, wakeupOnce, resetWakeup, read and tryRead from any thread; the
/// rest, construction and destruction included, in the thread of the loop.
class ORBEL_API EventFd {
public:
    /// If the system gives no descriptor, one error line is logged and the object does nothing:
    /// fd() is -1 and every operation fails.
    EventFd(EventLoop* loop, EventFdType type);
    /// The count starts at `initial`, cut to 32 bits.
    EventFd(EventLoop* loop, unsigned long initial, EventFdType type);
    EventFd(const EventFd&) = delete;
    EventFd& operator=(const EventFd&) = delete;
    ~EventFd();

    /// The object's own, not to be closed; -1 if there is none.
    int32_t fd() const { return mFd; }

    /// Adds `value` to the count. False if that would overflow it, silently, or on an error.
    bool write(uint64_t value);
    /// Takes the count, or 1 of it in a semaphore. 0 if there is nothing to take, or on an error.
    uint64_t read();
    /// As read(), but false where there is nothing to take, and never a log line.
    bool tryRead(uint64_t& value);
    ///@{
    /// write(1).
    bool notify();
    bool wakeup();
    ///@}
    /// Wakes up unless a wake-up is pending since the last resetWakeup(): a burst of wake-ups makes
    /// one system call. What the caller stored before this call is seen by whoever calls
    /// resetWakeup() afterwards. False if the write failed.
    bool wakeupOnce();
    /// Ends the pending wake-up, so that the next wakeupOnce() writes again. The count stays.
    void resetWakeup();
    /// A hint that orders nothing: true if wakeupOnce() would do nothing now.
    bool isWakeupPending() const { return mWakeupPending.load(std::memory_order_relaxed); }

    /// Called with the value of each read, also when another reader was faster and it is 0.
    void setReadCallback(const std::function<void(uint64_t)>& callback);
    /// Called when the poller reports an error of the descriptor.
    void setErrorCallback(const std::function<void()>& callback);

    ///@{
    /// Whether the loop watches the descriptor; at first it does not. "All" is reading and
    /// writing, and an eventfd is nearly always ready to be written: the loop would not rest.
    void enableReading();
    void disableReading();
    void enableAll();
    void disableAll();
    ///@}
    ///@{
    /// Whether the loop watches for it, not whether it is so.
    bool isReadable() const;
    bool isWritable() const;
    ///@}

    /// Zeroes the counters of operations and bytes.
    void resetStatistics();

private:
    void init();
    void createEventFd();
    void handleRead();
    void handleError();
    /// Reads 8 bytes and counts them; false with errno set.
    bool readValue(uint64_t& value);

    int32_t mFd = -1;
    EventLoop* mLoop;
    EventFdType mType;
    std::unique_ptr<Channel> mChannel;
    std::function<void(uint64_t)> mReadCallback;
    std::function<void()> mErrorCallback;
    std::atomic<uint64_t> mReads{0};
    std::atomic<uint64_t> mWrites{0};
    std::atomic<uint64_t> mBytesRead{0};
    std::atomic<uint64_t> mBytesWritten{0};
    uint64_t mInitialValue;
    std::atomic<bool> mWakeupPending{false};
};

}  // namespace Vantel::Orbel
