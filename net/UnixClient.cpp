#include "Vantel/Orbel/UnixClient.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"

namespace Vantel::Orbel {

UnixClient::UnixClient(EventLoop* loop, const std::string& name) : StreamClient(loop, name) {}

UnixClient::~UnixClient() = default;

bool UnixClient::checkServerAddress(const InetAddress& addr) const {
    return addr.family() == AF_UNIX;
}

}  // namespace Vantel::Orbel
