#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;

/// The registration of one file descriptor with one EventLoop: an interest mask and four callbacks.
///
/// Event masks hold the bits of poll(2), which on Linux are those of epoll. The descriptor belongs
/// to the caller: it stays open as long as the channel is added to the loop, and the channel never
/// closes it. The orderly end is disableAll(), remove(), destruction, then close of the descriptor.
///
/// Threads: everything in the thread of the loop, asserted by the poller.
class ORBEL_API Channel {
public:
    /// `loop` outlives the channel. `fd` is fixed for the channel's life.
    Channel(EventLoop* loop, int32_t fd);
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    /// Asserts that the channel is not added to its loop.
    ~Channel();

    ///@{
    /// Replace a callback by a copy of `callback`; an empty one is skipped. A callback must not
    /// replace itself while it runs, nor destroy the channel unless the owner is tied.
    void setReadCallback(const std::function<void()>& callback);
    void setWriteCallback(const std::function<void()>& callback);
    void setErrorCallback(const std::function<void()>& callback);
    void setCloseCallback(const std::function<void()>& callback);
    ///@}

    ///@{
    /// Change the interest mask; the first call adds the channel to the loop. False, with errno, if
    /// the poller refused; the mask is then as before.
    bool enableReading();
    bool enableWriting();
    bool disableReading();
    bool disableWriting();
    ///@}
    /// True at once, without asking the poller, if the mask is empty already.
    bool disableAll();

    ///@{
    /// What the interest mask holds; neither says that something is ready.
    bool isReading() const;
    bool isWriting() const;
    bool isNoneEvent() const;
    ///@}
    /// True from the first accepted change of the mask to remove(), also with an empty mask.
    bool isAddedToLoop() const;
    ///@{
    /// As given to the constructor.
    int32_t fd() const;
    EventLoop* ownerLoop() const;
    ///@}
    /// The interest mask: POLLIN, POLLOUT, both or 0.
    uint32_t events() const;
    /// What the poller has noted by setState(): -1 while it does not know the channel.
    int32_t state() const;

    ///@{
    /// For pollers only: what the last poll returned, and the poller's registration state.
    void setRevents(uint32_t revents);
    void setState(int32_t state);
    ///@}

    /// Remembers the owner weakly: once it is gone handleEvent() does nothing, and while it lives
    /// it is held for the length of each dispatch.
    void tie(const std::shared_ptr<void>& owner);

    /// Runs the callbacks for the last returned mask. A hang-up without readable data runs the
    /// close callback alone; otherwise the order is error, read, write.
    void handleEvent();

    /// Takes the channel out of the loop. It must be added (asserted) and have an empty mask.
    /// False if the poller refused; the channel is then still added.
    bool remove();

    /// The interest mask in words, each followed by a blank: "IN OUT ".
    std::string eventsToString() const;

private:
    class ORBEL_LOCAL Internal;
    bool changeEvents(uint32_t events);

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
