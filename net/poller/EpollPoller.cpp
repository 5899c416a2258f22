#include "Vantel/Orbel/EpollPoller.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Vantel/Orbel/CTime.h"
#include "Vantel/Orbel/Channel.h"
#include "frame/base/Assert.h"
#include "frame/base/Log.h"

namespace Vantel::Orbel {

namespace {

// Registration states of a channel. The values are part of the contract with SelectPoller, which
// compares with the bare numbers.
constexpr int32_t kNew = -1;
constexpr int32_t kAdded = 1;
constexpr int32_t kDeleted = 2;  // known to the poller, out of the kernel's set: its mask is empty

constexpr size_t kFirstEventCount = 16;

}  // namespace

EpollPoller::EpollPoller(EventLoop* loop)
    : Poller(loop), mEpollFd(::epoll_create1(EPOLL_CLOEXEC)), mEvents(kFirstEventCount) {
    if (mEpollFd < 0) {
        ORBEL_LOG_FATAL("EpollPoller::EpollPoller failed to create epoll fd: %s\n",
                        std::strerror(errno));
        ORBEL_ASSERT(false);
    }
}

EpollPoller::~EpollPoller() {
    if (mEpollFd >= 0) {
        ::close(mEpollFd);
    }
}

int64_t EpollPoller::poll(int32_t timeoutMs, ChannelList* activeChannels) {
    const int numEvents =
        ::epoll_wait(mEpollFd, mEvents.data(), static_cast<int>(mEvents.size()), timeoutMs);
    const int savedErrno = errno;
    const auto now = static_cast<int64_t>(CTime::getCurrentMicroSecond());
    if (numEvents > 0) {
        fillActiveChannels(numEvents, activeChannels);
        if (static_cast<size_t>(numEvents) == mEvents.size()) {
            mEvents.resize(mEvents.size() * 2);
        }
    } else if (numEvents < 0 && savedErrno != EINTR) {
        ORBEL_LOG_ERROR("EpollPoller::poll() error: %s\n", std::strerror(savedErrno));
    }
    return now;
}

void EpollPoller::fillActiveChannels(int numEvents, ChannelList* activeChannels) const {
    ORBEL_ASSERT(static_cast<size_t>(numEvents) <= mEvents.size());
    for (size_t i = 0; i < static_cast<size_t>(numEvents); ++i) {
        auto* const channel = static_cast<Channel*>(mEvents[i].data.ptr);
        const Channel* const known = findChannel(channel->fd());
        ORBEL_ASSERT_TEXT(known != nullptr, "it != mChannels.end()");
        ORBEL_ASSERT_TEXT(known == channel, "it->second == channel");
        channel->setRevents(mEvents[i].events);
        activeChannels->push_back(channel);
    }
}

const char* EpollPoller::operationToString(int operation) {
    switch (operation) {
        case EPOLL_CTL_ADD:
            return "ADD";
        case EPOLL_CTL_DEL:
            return "DEL";
        case EPOLL_CTL_MOD:
            return "MOD";
        default:
            ORBEL_ASSERT(false && "ERROR op");
            return "";
    }
}

bool EpollPoller::update(int operation, Channel* channel) {
    epoll_event event{};
    event.events = channel->events();
    event.data.ptr = channel;
    if (::epoll_ctl(mEpollFd, operation, channel->fd(), &event) == 0) {
        return true;
    }
    const int savedErrno = errno;
    ORBEL_LOG_ERROR("epoll_ctl op = %s fd = %d error: %s\n", operationToString(operation),
                    channel->fd(), std::strerror(savedErrno));
    errno = savedErrno;  // for the caller of Channel::enable...
    return false;
}

bool EpollPoller::updateChannel(Channel* channel) {
    assertInLoopThread();
    const int32_t state = channel->state();
    const int32_t fd = channel->fd();
    if (state == kNew) {
        ORBEL_ASSERT_TEXT(findChannel(fd) == nullptr, "mChannels.find(fd) == mChannels.end()");
        if (!update(EPOLL_CTL_ADD, channel)) {
            return false;
        }
        storeChannel(fd, channel);
        channel->setState(kAdded);
        return true;
    }
    ORBEL_ASSERT_TEXT(findChannel(fd) != nullptr, "mChannels.find(fd) != mChannels.end()");
    ORBEL_ASSERT_TEXT(findChannel(fd) == channel, "mChannels[fd] == channel");
    if (state == kDeleted) {
        // Also with an empty mask, which goes back into the kernel's set as it is.
        if (!update(EPOLL_CTL_ADD, channel)) {
            return false;
        }
        channel->setState(kAdded);
        return true;
    }
    ORBEL_ASSERT(state == kAdded);
    if (!channel->isNoneEvent()) {
        return update(EPOLL_CTL_MOD, channel);
    }
    if (!update(EPOLL_CTL_DEL, channel)) {
        return false;
    }
    channel->setState(kDeleted);
    return true;
}

bool EpollPoller::removeChannel(Channel* channel) {
    assertInLoopThread();
    const int32_t state = channel->state();
    const int32_t fd = channel->fd();
    ORBEL_ASSERT_TEXT(findChannel(fd) != nullptr, "mChannels.find(fd) != mChannels.end()");
    ORBEL_ASSERT_TEXT(findChannel(fd) == channel, "mChannels[fd] == channel");
    ORBEL_ASSERT(channel->isNoneEvent());
    ORBEL_ASSERT(state == kAdded || state == kDeleted);
    if (state == kAdded && !update(EPOLL_CTL_DEL, channel)) {
        return false;
    }
    const size_t n = eraseChannel(fd);
    ORBEL_ASSERT(n == 1);
    channel->setState(kNew);
    return true;
}

}  // namespace Vantel::Orbel
