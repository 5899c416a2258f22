#pragma once

#include "ipc/SharedMemProxyBase.h"

namespace Vantel::Orbel {

class EventLoop;

/// Towards a node that writes to us.
class SharedMemWriterProxy : public SharedMemProxyBase {
public:
    /// Without a loop or with an empty node it has no client, and every writeMessage() fails.
    SharedMemWriterProxy(EventLoop* loop, NodeEntry node, const std::string& domainName);

    const char* proxyName() const override { return "SharedMemWriterProxy"; }
};

}  // namespace Vantel::Orbel
