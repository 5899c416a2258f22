#include "ipc/SharedMemReaderProxy.h"

#include "Vantel/Orbel/UnixClient.h"

namespace Vantel::Orbel {

SharedMemReaderProxy::SharedMemReaderProxy(EventLoop* loop, NodeEntry node,
                                           const std::string& domainName)
    : SharedMemProxyBase(std::move(node), domainName) {
    if (loop != nullptr && nodeId() != 0) {
        attachClient(std::make_unique<UnixClient>(loop, "SharedMemReaderProxyClient"));
    }
}

}  // namespace Vantel::Orbel
