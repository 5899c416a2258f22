#include "Vantel/Orbel/UnixServer.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"

namespace Vantel::Orbel {

UnixServer::UnixServer(EventLoop* loop, const std::string& name) : StreamServer(loop, name) {}

UnixServer::UnixServer(EventLoop* loop, const std::string& name, EventLoopGroup* group)
    : StreamServer(loop, name, group) {}

UnixServer::~UnixServer() = default;

bool UnixServer::checkListenAddress(const InetAddress& addr) const {
    return addr.family() == AF_UNIX;
}

}  // namespace Vantel::Orbel
