#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Vantel/Orbel/SharedMemNode.h"
#include "ipc/DomainSegment.h"
#include "ipc/PipeMessage.h"
#include "ipc/PipeReceiver.h"

namespace Vantel::Orbel {

class EventLoop;
class SharedDomainImpl;
class SharedMemReadChannelImpl;
class SharedMemWriteChannelImpl;
class StreamConnection;
class UnixServer;

/// A node: its entry in the node table, its socket, its channels.
///
/// Threads: messages are received and handled on the domain's loop; the notify operations come from
/// any thread; mMutex guards the two maps and the server pointer and is never held across a call
/// into a channel, which lives on through the shared pointer taken under it.
class SharedMemNodeImpl : public SharedMemNode,
                          public std::enable_shared_from_this<SharedMemNodeImpl> {
public:
    /// Fills the entry of `slot`, which the caller has claimed and whose segment it holds locked.
    SharedMemNodeImpl(const std::string& name, std::shared_ptr<DomainSegment> segment,
                      unsigned int slot, std::weak_ptr<SharedDomainImpl> domain);
    ~SharedMemNodeImpl() override;

    bool init() override;
    bool deInit() override;
    unsigned long nodeId() const override;
    bool deleteReadChannel(const std::string& name) override;
    bool deleteWriteChannel(const std::string& name) override;
    std::shared_ptr<SharedMemReadChannel> newReadChannel(const std::string& name) override;
    std::shared_ptr<SharedMemWriteChannel> newWriteChannel(const std::string& name) override;

    /// The id that the node was given, also when the table has it no more.
    unsigned long createdId() const { return mNodeId; }
    unsigned int slot() const { return mSlot; }
    unsigned int tag() const { return mTag; }
    /// Null once the domain is gone.
    std::shared_ptr<SharedDomainImpl> getDomain() const { return mDomain.lock(); }

    /// Sends a message to another node through the domain's proxy for it.
    bool notifyReader(unsigned long readerId, PipeMessage& message);
    bool notifyWriter(unsigned long writerId, PipeMessage& message);
    /// `count` messages in one send.
    bool sendToWriter(unsigned long writerId, const PipeMessage* messages, size_t count);

    /// Hands a message to the channel that it names; false if there is none or it refuses. The
    /// descriptor of a data-ready message is the channel's after true, closed after false.
    bool processDataReadyMessage(const PipeMessage& message);
    bool processDataFinishMessage(const PipeMessage& message);

    /// Reads and handles all messages that are there. Bytes handled, or else the last result of
    /// recvMessage().
    int handleMessage(const std::shared_ptr<StreamConnection>& connection);
    /// One batch of up to `count` (at most 16) messages, as PipeReceiver::receive(); -1 with
    /// ENOTCONN if the connection has no Unix socket. Loop thread.
    int recvMessage(const std::shared_ptr<StreamConnection>& connection, PipeMessage* messages,
                    unsigned int count);

    /// The domain's periodic pass over the write channels.
    void checkAndCleanupChannels();

    /// Stops the server whatever the state of the table entry: its loop is about to end.
    void closeServer();

private:
    template <class Impl>
    using ChannelMap = std::map<unsigned long, std::shared_ptr<Impl>>;

    NodeInfo& entry() const { return mSegment->node(mSlot); }
    /// The slot is still this node's.
    bool ownsEntry() const { return entry().nodeId.load() == mNodeId; }
    bool startServer(EventLoop* loop, const std::string& path);
    /// closeServer() for a caller that holds the loop.
    void stopServer();
    void onReadable(const std::shared_ptr<StreamConnection>& connection);
    void handleOne(const PipeMessage& message);
    template <class Impl>
    std::shared_ptr<Impl> newChannel(ChannelMap<Impl>& channels, const std::string& name,
                                     bool& created);
    template <class Impl>
    bool deleteChannel(ChannelMap<Impl>& channels, const std::string& name);
    template <class Impl>
    std::shared_ptr<Impl> findChannel(const ChannelMap<Impl>& channels, unsigned long channelId);
    void closeChannels();

    std::atomic<bool> mInitialized{false};
    const std::shared_ptr<DomainSegment> mSegment;  // keeps the entry mapped for nodeId()
    const unsigned int mSlot;
    const std::string mName;  // as it stands in the table
    const unsigned long mNodeId;
    const unsigned int mTag;
    std::mutex mInitMutex;
    std::mutex mMutex;
    std::unique_ptr<UnixServer> mServer;
    const std::weak_ptr<SharedDomainImpl> mDomain;
    ChannelMap<SharedMemReadChannelImpl> mReadChannels;
    ChannelMap<SharedMemWriteChannelImpl> mWriteChannels;
    PipeReceiver mReceiver;
};

}  // namespace Vantel::Orbel
