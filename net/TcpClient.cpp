#include "Vantel/Orbel/TcpClient.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"

namespace Vantel::Orbel {

TcpClient::TcpClient(EventLoop* loop, const std::string& name) : StreamClient(loop, name) {}

TcpClient::~TcpClient() = default;

bool TcpClient::connect(const std::string& host, uint16_t port, int32_t timeoutMs, bool ipv6) {
    InetAddress addr;
    return InetAddress::resolve(host, port, &addr, ipv6) && connect(addr, timeoutMs);
}

bool TcpClient::checkServerAddress(const InetAddress& addr) const {
    return addr.family() == AF_INET || addr.family() == AF_INET6;
}

}  // namespace Vantel::Orbel
