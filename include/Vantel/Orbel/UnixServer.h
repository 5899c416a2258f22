#pragma once

#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamServer.h"

namespace Vantel::Orbel {

/// A StreamServer for Unix domain addresses.
class ORBEL_API UnixServer : public StreamServer {
public:
    ///@{
    /// As StreamServer.
    UnixServer(EventLoop* loop, const std::string& name);
    UnixServer(EventLoop* loop, const std::string& name, EventLoopGroup* group);
    ///@}
    ~UnixServer() override;

    /// Unix addresses.
    bool checkListenAddress(const InetAddress& addr) const override;
};

}  // namespace Vantel::Orbel
