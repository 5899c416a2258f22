#include "ipc/SharedMemWriterProxy.h"

#include "Vantel/Orbel/UnixClient.h"

namespace Vantel::Orbel {

SharedMemWriterProxy::SharedMemWriterProxy(EventLoop* loop, NodeEntry node,
                                           const std::string& domainName)
    : SharedMemProxyBase(std::move(node), domainName) {
    if (loop != nullptr && nodeId() != 0) {
        attachClient(std::make_unique<UnixClient>(loop, "SharedMemWriterProxyClient"));
    }
}

}  // namespace Vantel::Orbel
