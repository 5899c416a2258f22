#include "Vantel/Orbel/Poller.h"

#include "Vantel/Orbel/Channel.h"
#include "Vantel/Orbel/EpollPoller.h"
#include "Vantel/Orbel/EventLoop.h"
#include "frame/base/Assert.h"

namespace Vantel::Orbel {

Poller::Poller(EventLoop* loop) : mLoop(loop) {}

Poller::~Poller() = default;

bool Poller::hasChannel(Channel* channel) const {
    assertInLoopThread();
    return channel != nullptr && findChannel(channel->fd()) == channel;
}

void Poller::assertInLoopThread() const {
    ORBEL_ASSERT_TEXT(mLoop->isInLoopThread(), "isInLoopThread()");
}

std::unique_ptr<Poller> Poller::newDefaultPoller(EventLoop* loop) {
    return std::make_unique<EpollPoller>(loop);
}

void Poller::storeChannel(int32_t fd, Channel* channel) {
    const auto index = static_cast<size_t>(fd);
    if (index >= mChannels.size()) {
        mChannels.resize(index + 1, nullptr);
    }
    mChannelCount += mChannels[index] == nullptr ? 1 : 0;
    mChannels[index] = channel;
}

size_t Poller::eraseChannel(int32_t fd) {
    if (findChannel(fd) == nullptr) {
        return 0;
    }
    mChannels[static_cast<size_t>(fd)] = nullptr;
    --mChannelCount;
    return 1;
}

}  // namespace Vantel::Orbel
