#include "Vantel/Orbel/DatagramSocket.h"

#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

namespace {

int creationType(bool nonBlocking) {
    return SOCK_DGRAM | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0);
}

/// False with EINVAL for a closed socket or a null buffer with a length.
bool usable(int fd, const void* buffer, size_t length) {
    return (fd >= 0 && (buffer != nullptr || length == 0)) || refuse(EINVAL);
}

}  // namespace

DatagramSocket::DatagramSocket() : DatagramSocket(AF_INET, true) {}

DatagramSocket::DatagramSocket(int family, bool nonBlocking)
    : DatagramSocket(family, 0, nonBlocking) {}

DatagramSocket::DatagramSocket(int family, int protocol, bool nonBlocking)
    : Socket(family, creationType(nonBlocking), protocol) {}

DatagramSocket::DatagramSocket(int fd) : Socket(fd) {}

bool DatagramSocket::bind(const InetAddress& addr) {
    if (fd() < 0) {
        return refuse(EBADF);
    }
    if (!checkAddressFamily(addr, "datagram bind")) {
        return false;
    }
    if (addr.family() == AF_UNIX) {
        InetAddress::removeUnixSocketFile(addr.getUnixPath());  // if it stays, bind says why
    }
    return Socket::bind(addr);
}

bool DatagramSocket::connect(const InetAddress& addr) {
    if (fd() < 0) {
        return refuse(EBADF);
    }
    return checkAddressFamily(addr, "datagram connect") &&
           succeeded(::connect(fd(), addr.getSockAddr(), addr.getSockLen()), "datagram connect");
}

ssize_t DatagramSocket::send(const void* buffer, size_t length, int flags) {
    return usable(fd(), buffer, length) ? ::send(fd(), buffer, length, flags | MSG_NOSIGNAL) : -1;
}

ssize_t DatagramSocket::recv(void* buffer, size_t length, int flags) {
    return usable(fd(), buffer, length) ? ::recv(fd(), buffer, length, flags) : -1;
}

ssize_t DatagramSocket::sendTo(const void* buffer, size_t length, const InetAddress& addr,
                               int flags) {
    if (!usable(fd(), buffer, length) || !checkAddressFamily(addr, "datagram sendTo")) {
        return -1;
    }
    return ::sendto(fd(), buffer, length, flags | MSG_NOSIGNAL, addr.getSockAddr(),
                    addr.getSockLen());
}

ssize_t DatagramSocket::recvFrom(void* buffer, size_t length, InetAddress* peer, int flags) {
    if (!usable(fd(), buffer, length)) {
        return -1;
    }
    sockaddr_storage storage{};
    socklen_t storageLength = sizeof storage;
    const ssize_t received = ::recvfrom(fd(), buffer, length, flags,
                                        reinterpret_cast<sockaddr*>(&storage), &storageLength);
    if (received >= 0 && peer != nullptr) {
        peer->setSockAddrStorage(storage);
    }
    return received;
}

}  // namespace Vantel::Orbel
