#pragma once

#include <sys/epoll.h>

#include <vector>

#include "Vantel/Orbel/Poller.h"

namespace Vantel::Orbel {

/// The poller of every EventLoop, over epoll, level-triggered.
class ORBEL_API EpollPoller : public Poller {
public:
    /// Ends the process if the system gives no epoll descriptor.
    explicit EpollPoller(EventLoop* loop);
    ~EpollPoller() override;

    int64_t poll(int32_t timeoutMs, ChannelList* activeChannels) override;
    bool updateChannel(Channel* channel) override;
    bool removeChannel(Channel* channel) override;

private:
    static const char* operationToString(int operation);
    void fillActiveChannels(int numEvents, ChannelList* activeChannels) const;
    bool update(int operation, Channel* channel);

    int32_t mEpollFd;
    std::vector<epoll_event> mEvents;
};

}  // namespace Vantel::Orbel
