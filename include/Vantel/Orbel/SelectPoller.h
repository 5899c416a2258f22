#pragma once

#include <sys/select.h>

#include "Vantel/Orbel/Poller.h"

namespace Vantel::Orbel {

/// A poller over select, for descriptors 0 to 1023. No EventLoop uses it by itself. It traces each
/// of its operations on standard output, and it reports every registered channel as soon as select
/// returned any.
class ORBEL_API SelectPoller : public Poller {
public:
    /// Needs no descriptor of its own and cannot fail.
    explicit SelectPoller(EventLoop* loop);
    ~SelectPoller() override;

    int64_t poll(int32_t timeoutMs, ChannelList* activeChannels) override;
    /// False, with a line on standard error, if the descriptor lies outside 0 to 1023.
    bool updateChannel(Channel* channel) override;
    bool removeChannel(Channel* channel) override;

private:
    void fillActiveChannels(ChannelList* activeChannels) const;

    fd_set mReadSet;
    fd_set mWriteSet;
    fd_set mExceptSet;
    int32_t mMaxFd = -1;
};

}  // namespace Vantel::Orbel
