#pragma once

#include <memory>
#include <string>

#include "Vantel/Orbel/PrioMutex.h"
#include "ipc/DomainSegment.h"
#include "ipc/PipeMessage.h"

namespace Vantel::Orbel {

class UnixClient;

/// The way to a node of another process: one connection to its socket, which is made again by
/// itself when it breaks. What was sent on a broken connection is lost.
///
/// Threads: writeMessage() and close() from any; the rest from the one that builds the proxy.
/// The loop of the client must run until close() or the destructor has returned.
class SharedMemProxyBase {
public:
    SharedMemProxyBase(NodeEntry node, const std::string& domainName);
    SharedMemProxyBase(const SharedMemProxyBase&) = delete;
    SharedMemProxyBase& operator=(const SharedMemProxyBase&) = delete;
    virtual ~SharedMemProxyBase();

    virtual const char* proxyName() const = 0;

    unsigned long nodeId() const { return mNode.nodeId; }
    /// The node's name, empty without a node.
    const char* name() const { return mNode.name.c_str(); }
    /// The node that the proxy was made for still stands in its slot.
    bool valid() const { return mNode.current(); }
    std::string socketPath() const;

    /// Takes the client over and connects it; false if there is one already, or no node. The
    /// result of the connecting does not matter here: the client goes on trying.
    bool attachClient(std::unique_ptr<UnixClient> client);
    /// True if connected or an attempt could be begun.
    bool connect();

    /// Sends one message. A peer that does not take it within 10 ms, or any other failure to send,
    /// loses the connection: the stream may be out of step. False with errno set.
    bool writeMessage(const PipeMessage& message);
    /// The same for up to 16 messages without descriptors, in one send.
    bool writeMessages(const PipeMessage* messages, size_t count);

    /// Ends the connection for good: every later writeMessage() fails with ENOTCONN.
    void close();

private:
    template <class Send>
    bool write(Send&& send);

    const NodeEntry mNode;
    const std::string mDomainName;
    PrioMutex mMutex;  // two records must not interleave on the stream; also guards mClient
    std::unique_ptr<UnixClient> mClient;
};

}  // namespace Vantel::Orbel
