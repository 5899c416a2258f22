#pragma once

#include "ipc/SharedMemProxyBase.h"

namespace Vantel::Orbel {

class EventLoop;

/// Towards a node that reads from us.
class SharedMemReaderProxy : public SharedMemProxyBase {
public:
    /// Without a loop or with an empty node it has no client, and every writeMessage() fails.
    SharedMemReaderProxy(EventLoop* loop, NodeEntry node, const std::string& domainName);

    const char* proxyName() const override { return "SharedMemReaderProxy"; }
};

}  // namespace Vantel::Orbel
