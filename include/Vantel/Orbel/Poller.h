#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class Channel;
class EventLoop;

/// A readiness source below an EventLoop. Channels are registered, not owned.
///
/// Threads: the thread of the loop only; updateChannel, removeChannel and hasChannel assert it.
class ORBEL_API Poller {
public:
    /// Channels, not owned.
    using ChannelList = std::vector<Channel*>;

    /// `loop` outlives the poller.
    explicit Poller(EventLoop* loop);
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;
    virtual ~Poller();

    /// Waits at most `timeoutMs` milliseconds (negative: without limit) and appends the channels
    /// with events to `activeChannels`. Returns the monotonic time in microseconds right after the
    /// wait, whatever its outcome.
    virtual int64_t poll(int32_t timeoutMs, ChannelList* activeChannels) = 0;

    /// Registers the channel or brings its registration in line with its mask. False if the system
    /// refused; nothing has changed then.
    virtual bool updateChannel(Channel* channel) = 0;

    /// Forgets a registered channel with an empty mask. False if the system refused.
    virtual bool removeChannel(Channel* channel) = 0;

    /// True if this very channel is registered under its descriptor.
    virtual bool hasChannel(Channel* channel) const;

    /// Ends the process if this is not the thread of the loop.
    void assertInLoopThread() const;

    /// The poller that an EventLoop uses: an EpollPoller.
    static std::unique_ptr<Poller> newDefaultPoller(EventLoop* loop);

protected:
    /// The channel registered under `fd`, or null.
    Channel* findChannel(int32_t fd) const {
        return fd >= 0 && static_cast<size_t>(fd) < mChannels.size()
                   ? mChannels[static_cast<size_t>(fd)]
                   : nullptr;
    }
    /// Puts `channel`, which is not null, under `fd`, in place of one that is there.
    void storeChannel(int32_t fd, Channel* channel);
    /// How many entries went: 0 or 1.
    size_t eraseChannel(int32_t fd);

    /// Indexed by descriptor, null where nothing is registered: the kernel hands out the lowest
    /// free numbers, so this is dense, and the check of each event is one load.
    ChannelList mChannels;
    size_t mChannelCount = 0;  ///< without the null entries

private:
    EventLoop* mLoop;
};

}  // namespace Vantel::Orbel
