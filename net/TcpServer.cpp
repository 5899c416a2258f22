#include "Vantel/Orbel/TcpServer.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"

namespace Vantel::Orbel {

TcpServer::TcpServer(EventLoop* loop, const std::string& name) : StreamServer(loop, name) {}

TcpServer::TcpServer(EventLoop* loop, const std::string& name, EventLoopGroup* group)
    : StreamServer(loop, name, group) {}

TcpServer::~TcpServer() = default;

bool TcpServer::checkListenAddress(const InetAddress& addr) const {
    return addr.family() == AF_INET || addr.family() == AF_INET6;
}

}  // namespace Vantel::Orbel
