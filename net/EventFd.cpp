#include "Vantel/Orbel/EventFd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Vantel/Orbel/Channel.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

EventFd::EventFd(EventLoop* loop, EventFdType type) : EventFd(loop, 0, type) {}

EventFd::EventFd(EventLoop* loop, unsigned long initial, EventFdType type)
    : mLoop(loop), mType(type), mInitialValue(initial) {
    init();
}

EventFd::~EventFd() {
    if (mChannel && mChannel->isAddedToLoop()) {
        mChannel->disableAll();
        mChannel->remove();
    }
    mChannel.reset();
    if (mFd >= 0) {
        ::close(mFd);
    }
}

void EventFd::init() {
    createEventFd();
    if (mFd < 0) {
        return;
    }
    mChannel = std::make_unique<Channel>(mLoop, mFd);
    mChannel->setReadCallback([this] { handleRead(); });
    mChannel->setErrorCallback([this] { handleError(); });
}

void EventFd::createEventFd() {
    const int flags =
        EFD_CLOEXEC | EFD_NONBLOCK | (mType == kEventFdSemaphore ? int{EFD_SEMAPHORE} : 0);
    mFd = ::eventfd(static_cast<unsigned int>(mInitialValue), flags);
    if (mFd < 0) {
        ORBEL_LOG_ERROR("EventFd: Failed to create eventfd: %s\n", std::strerror(errno));
    }
}

bool EventFd::write(uint64_t value) {
    if (mFd < 0) {
        return false;
    }
    if (::write(mFd, &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
        mWrites.fetch_add(1, std::memory_order_relaxed);
        mBytesWritten.fetch_add(sizeof value, std::memory_order_relaxed);
        return true;
    }
    if (errno != EAGAIN) {
        ORBEL_LOG_ERROR("EventFd::write() failed: %s\n", std::strerror(errno));
    }
    return false;
}

bool EventFd::readValue(uint64_t& value) {
    if (::read(mFd, &value, sizeof value) != static_cast<ssize_t>(sizeof value)) {
        return false;
    }
    mReads.fetch_add(1, std::memory_order_relaxed);
    mBytesRead.fetch_add(sizeof value, std::memory_order_relaxed);
    return true;
}

uint64_t EventFd::read() {
    uint64_t value = 0;
    if (mFd < 0) {
        return 0;
    }
    if (readValue(value)) {
        return value;
    }
    if (errno != EAGAIN) {
        ORBEL_LOG_ERROR("EventFd::read() failed: %s\n", std::strerror(errno));
    }
    return 0;
}

bool EventFd::tryRead(uint64_t& value) {
    uint64_t taken = 0;
    if (mFd < 0 || !readValue(taken)) {
        return false;
    }
    value = taken;
    return true;
}

bool EventFd::notify() {
    return write(1);
}

bool EventFd::wakeup() {
    return notify();
}

bool EventFd::wakeupOnce() {
    // Sequentially consistent on purpose: a caller that finds the flag set goes on without a
    // system call, so what it stored before must be visible to whoever clears the flag after.
    bool pending = false;
    if (!mWakeupPending.compare_exchange_strong(pending, true)) {
        return true;
    }
    if (!wakeup()) {
        mWakeupPending.store(false);
        return false;
    }
    return true;
}

void EventFd::resetWakeup() {
    mWakeupPending.exchange(false);
}

void EventFd::setReadCallback(const std::function<void(uint64_t)>& callback) {
    mReadCallback = callback;
}

void EventFd::setErrorCallback(const std::function<void()>& callback) {
    mErrorCallback = callback;
}

void EventFd::enableReading() {
    if (mChannel) {
        mChannel->enableReading();
    }
}

void EventFd::disableReading() {
    if (mChannel) {
        mChannel->disableReading();
    }
}

void EventFd::enableAll() {
    if (mChannel) {
        mChannel->enableReading();
        mChannel->enableWriting();
    }
}

void EventFd::disableAll() {
    if (mChannel) {
        mChannel->disableAll();
    }
}

bool EventFd::isReadable() const {
    return mChannel && mChannel->isReading();
}

bool EventFd::isWritable() const {
    return mChannel && mChannel->isWriting();
}

void EventFd::resetStatistics() {
    mReads.store(0, std::memory_order_relaxed);
    mWrites.store(0, std::memory_order_relaxed);
    mBytesRead.store(0, std::memory_order_relaxed);
    mBytesWritten.store(0, std::memory_order_relaxed);
}

void EventFd::handleRead() {
    const uint64_t value = read();
    if (mReadCallback) {
        mReadCallback(value);
    }
}

void EventFd::handleError() {
    if (mErrorCallback) {
        mErrorCallback();
    }
}

}  // namespace Vantel::Orbel
