#pragma once

#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class SharedMemReadChannel;
class SharedMemWriteChannel;

/// One named participant of a domain, made by SharedMemDomain::createNode(). Its channels live as
/// long as it, or until they are deleted.
///
/// Two processes that make nodes of one name in a domain both succeed, and the one that calls
/// init() later takes the socket over, and with it the messages of the other: give each process
/// names of its own.
///
/// Threads: all methods from any thread. deInit() and the last release of the node wait for the
/// domain's control thread; a read callback in sync mode must not wait for such a call.
class ORBEL_API SharedMemNode {
public:
    SharedMemNode() = default;
    SharedMemNode(const SharedMemNode&) = delete;
    SharedMemNode& operator=(const SharedMemNode&) = delete;
    virtual ~SharedMemNode();

    /// Opens the node's socket and makes the node known. True at once if that was done before.
    /// False, with a line in the log, if the domain is not joined or the socket cannot be opened,
    /// for instance because its path is longer than 107 characters.
    virtual bool init() = 0;

    /// Closes the socket and all channels and gives the place in the domain back. False if the node
    /// was not initialized, or its place is not its own any more. destroyNode() does this too.
    virtual bool deInit() = 0;

    /// A random number given at creation, another one for each node ever made; 0 after deInit().
    virtual unsigned long nodeId() const = 0;

    ///@{
    /// Closes the channel and forgets it. False if the node has none of that name.
    virtual bool deleteReadChannel(const std::string& name) = 0;
    virtual bool deleteWriteChannel(const std::string& name) = 0;
    ///@}

    ///@{
    /// The node's channel of that name, made on first use; the caller then calls its init(). Null
    /// before the node's init() and for an empty name.
    virtual std::shared_ptr<SharedMemReadChannel> newReadChannel(const std::string& name) = 0;
    virtual std::shared_ptr<SharedMemWriteChannel> newWriteChannel(const std::string& name) = 0;
    ///@}
};

}  // namespace Vantel::Orbel
