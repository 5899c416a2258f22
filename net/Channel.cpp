#include "Vantel/Orbel/Channel.h"

#include <poll.h>
#include <sys/epoll.h>

#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/Assert.h"

namespace Vantel::Orbel {

static_assert(POLLIN == EPOLLIN && POLLPRI == EPOLLPRI && POLLOUT == EPOLLOUT &&
              POLLERR == EPOLLERR && POLLHUP == EPOLLHUP);

namespace {

constexpr uint32_t kReadHangUp = EPOLLRDHUP;  // POLLRDHUP, which <poll.h> hides without extensions
constexpr uint32_t kReadInterest = POLLIN;    // without POLLPRI
constexpr uint32_t kWriteInterest = POLLOUT;
constexpr int32_t kNotRegistered = -1;

constexpr struct {
    uint32_t bit;
    const char* text;
} kEventTexts[] = {
    {POLLIN, "IN "},   {POLLOUT, "OUT "}, {POLLERR, "ERR "},
    {POLLHUP, "HUP "}, {POLLPRI, "PRI "}, {kReadHangUp, "RDHUP "},
};

}  // namespace

class Channel::Internal {
public:
    Internal(EventLoop* loop, int32_t fd) : mFd(fd), mLoop(loop) {}

    void handleEventWithGuard();

    const int32_t mFd;
    int32_t mState = kNotRegistered;
    uint32_t mEvents = 0;
    uint32_t mRevents = 0;
    EventLoop* const mLoop;
    std::function<void()> mReadCallback;
    std::function<void()> mWriteCallback;
    std::function<void()> mErrorCallback;
    std::function<void()> mCloseCallback;
    bool mTied = false;
    bool mAddedToLoop = false;
    std::weak_ptr<void> mTie;
};

void Channel::Internal::handleEventWithGuard() {
    // A hang-up with data left to read goes to the reader, who then meets the end of file.
    if ((mRevents & (POLLHUP | POLLIN)) == POLLHUP) {
        if (mCloseCallback) {
            mCloseCallback();
        }
        return;
    }
    // mRevents is read anew each time: a callback may have changed it.
    if ((mRevents & POLLERR) != 0 && mErrorCallback) {
        mErrorCallback();
    }
    if ((mRevents & (POLLIN | POLLPRI | kReadHangUp)) != 0 && mReadCallback) {
        mReadCallback();
    }
    if ((mRevents & POLLOUT) != 0 && mWriteCallback) {
        mWriteCallback();
    }
}

Channel::Channel(EventLoop* loop, int32_t fd) : mInternal(std::make_unique<Internal>(loop, fd)) {}

Channel::~Channel() {
    ORBEL_ASSERT(!mInternal->mAddedToLoop);
}

void Channel::setReadCallback(const std::function<void()>& callback) {
    mInternal->mReadCallback = callback;
}

void Channel::setWriteCallback(const std::function<void()>& callback) {
    mInternal->mWriteCallback = callback;
}

void Channel::setErrorCallback(const std::function<void()>& callback) {
    mInternal->mErrorCallback = callback;
}

void Channel::setCloseCallback(const std::function<void()>& callback) {
    mInternal->mCloseCallback = callback;
}

bool Channel::changeEvents(uint32_t events) {
    const uint32_t before = mInternal->mEvents;
    mInternal->mEvents = events;
    if (!mInternal->mLoop->updateChannel(this)) {
        mInternal->mEvents = before;
        return false;
    }
    mInternal->mAddedToLoop = true;  // with an empty mask too: the poller knows the channel
    return true;
}

bool Channel::enableReading() {
    return changeEvents(mInternal->mEvents | kReadInterest);
}

bool Channel::enableWriting() {
    return changeEvents(mInternal->mEvents | kWriteInterest);
}

bool Channel::disableReading() {
    return changeEvents(mInternal->mEvents & ~kReadInterest);
}

bool Channel::disableWriting() {
    return changeEvents(mInternal->mEvents & ~kWriteInterest);
}

bool Channel::disableAll() {
    return isNoneEvent() || changeEvents(0);
}

bool Channel::isReading() const {
    return (mInternal->mEvents & kReadInterest) != 0;
}

bool Channel::isWriting() const {
    return (mInternal->mEvents & kWriteInterest) != 0;
}

bool Channel::isNoneEvent() const {
    return mInternal->mEvents == 0;
}

bool Channel::isAddedToLoop() const {
    return mInternal->mAddedToLoop;
}

int32_t Channel::fd() const {
    return mInternal->mFd;
}

EventLoop* Channel::ownerLoop() const {
    return mInternal->mLoop;
}

uint32_t Channel::events() const {
    return mInternal->mEvents;
}

int32_t Channel::state() const {
    return mInternal->mState;
}

void Channel::setRevents(uint32_t revents) {
    mInternal->mRevents = revents;
}

void Channel::setState(int32_t state) {
    mInternal->mState = state;
}

void Channel::tie(const std::shared_ptr<void>& owner) {
    mInternal->mTie = owner;
    mInternal->mTied = true;
}

void Channel::handleEvent() {
    if (!mInternal->mTied) {
        mInternal->handleEventWithGuard();
        return;
    }
    // Held to the end of the dispatch: the owner must not die in its own callback.
    if (const std::shared_ptr<void> owner = mInternal->mTie.lock()) {
        mInternal->handleEventWithGuard();
    }
}

bool Channel::remove() {
    ORBEL_ASSERT(mInternal->mAddedToLoop);
    if (!mInternal->mLoop->removeChannel(this)) {
        return false;
    }
    mInternal->mAddedToLoop = false;
    return true;
}

std::string Channel::eventsToString() const {
    std::string text;
    for (const auto& event : kEventTexts) {
        if ((mInternal->mEvents & event.bit) != 0) {
            text += event.text;
        }
    }
    return text;
}

}  // namespace Vantel::Orbel
