#include "Vantel/Orbel/TcpSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

TcpSocket::TcpSocket() : TcpSocket(AF_INET, true) {}

TcpSocket::TcpSocket(int family, bool nonBlocking)
    : StreamSocket(family, IPPROTO_TCP, nonBlocking) {}

TcpSocket::TcpSocket(int fd) : StreamSocket(fd) {}

std::unique_ptr<TcpSocket> TcpSocket::acceptConnection(InetAddress* peer) {
    const int accepted = accept(peer);
    return accepted < 0 ? nullptr : std::make_unique<TcpSocket>(accepted);
}

bool TcpSocket::connect(const InetAddress& addr, int timeoutMs) {
    if (addr.family() == AF_UNIX) {
        ORBEL_LOG_ERROR("TcpSocket only supports IPv4/IPv6 peer addresses\n");
        return refuse(EAFNOSUPPORT);
    }
    return StreamSocket::connect(addr, timeoutMs);
}

bool TcpSocket::setTcpNoDelay(int fd, bool on) {
    if (fd < 0) {
        return refuse(EINVAL);
    }
    const int value = on ? 1 : 0;
    return succeeded(::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value),
                     "setsockopt");
}

bool TcpSocket::setTcpNoDelay(bool on) {
    return setTcpNoDelay(fd(), on);
}

bool TcpSocket::setKeepAlive(bool on) {
    return setIntOption(SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0);
}

bool TcpSocket::setKeepIdle(int seconds) {
    return setIntOption(IPPROTO_TCP, TCP_KEEPIDLE, seconds);
}

bool TcpSocket::setKeepInterval(int seconds) {
    return setIntOption(IPPROTO_TCP, TCP_KEEPINTVL, seconds);
}

bool TcpSocket::setKeepCount(int count) {
    return setIntOption(IPPROTO_TCP, TCP_KEEPCNT, count);
}

}  // namespace Vantel::Orbel
