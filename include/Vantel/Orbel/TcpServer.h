#pragma once

#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamServer.h"

namespace Vantel::Orbel {

/// A StreamServer for IPv4 and IPv6 addresses.
class ORBEL_API TcpServer : public StreamServer {
public:
    ///@{
    /// As StreamServer.
    TcpServer(EventLoop* loop, const std::string& name);
    TcpServer(EventLoop* loop, const std::string& name, EventLoopGroup* group);
    ///@}
    ~TcpServer() override;

    /// IPv4 and IPv6 addresses.
    bool checkListenAddress(const InetAddress& addr) const override;
};

}  // namespace Vantel::Orbel
