#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Vantel/Orbel/SharedMemReadChannel.h"
#include "ipc/SharedMemChannel.h"

namespace Vantel::Orbel {

struct PipeMessage;
class SharedMemBuffer;
class SharedMemNodeImpl;

/// The reading end of a channel.
///
/// Threads: handleDataReady() on the domain's loop; the callback there (sync mode) or on the
/// domain's worker; buffers end anywhere; init(), open(), close() from the application's threads.
class SharedMemReadChannelImpl : public SharedMemReadChannel,
                                 public SharedMemChannel,
                                 public std::enable_shared_from_this<SharedMemReadChannelImpl> {
public:
    /// `node` must be live.
    SharedMemReadChannelImpl(const std::string& name, std::weak_ptr<SharedMemNodeImpl> node);
    ~SharedMemReadChannelImpl() override;

    bool init() override;
    bool close() override;
    unsigned long channelId() const override { return mChannelId; }
    bool open(const std::function<Callback>& callback) override;
    bool setSyncMode(bool sync) override;

    /// Takes one sample. False, with a line in the log, if it is refused; the descriptor of the
    /// message is then still the caller's to close.
    bool handleDataReady(const PipeMessage& message);

    /// Calls the callback with `buffer`, outside the lock; nothing if the channel is closed.
    void dispatchBuffer(std::shared_ptr<SharedMemBuffer> buffer);

private:
    /// The index in the block's readers under which this node may claim it; -1, with a line in the
    /// log, if the message is not about this incarnation or not for this node.
    int findReader(const BlockHeader& header, const PipeMessage& message) const;
    /// Hands the sample to the callback, here or through the worker.
    void deliver(std::shared_ptr<SharedMemBuffer> buffer, SharedDomainImpl& domain);
    std::shared_ptr<const std::function<Callback>> callback();

    std::atomic<bool> mSyncMode{false};
    std::mutex mCallbackMutex;  ///< over mOpened (writes) and mReadCallback
    std::atomic<bool> mOpened{false};
    /// Shared, so that a call needs no copy of the function itself.
    std::shared_ptr<const std::function<Callback>> mReadCallback;
};

}  // namespace Vantel::Orbel
