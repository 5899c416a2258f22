#include "Vantel/Orbel/UdpSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "Vantel/Orbel/InetAddress.h"
#include "net/SocketError.h"

namespace Vantel::Orbel {

UdpSocket::UdpSocket() : UdpSocket(AF_INET, true) {}

UdpSocket::UdpSocket(int family, bool nonBlocking)
    : DatagramSocket(family, IPPROTO_UDP, nonBlocking) {}

UdpSocket::UdpSocket(int fd) : DatagramSocket(fd) {}

bool UdpSocket::setBroadcast(bool on) {
    return setIntOption(SOL_SOCKET, SO_BROADCAST, on ? 1 : 0);
}

bool UdpSocket::setMulticastTTL(int ttl) {
    if (static_cast<unsigned>(ttl) > 255) {
        return refuse(EINVAL);
    }
    return setMulticastOption(IP_MULTICAST_TTL, IPV6_MULTICAST_HOPS, ttl);
}

bool UdpSocket::setMulticastLoop(bool on) {
    return setMulticastOption(IP_MULTICAST_LOOP, IPV6_MULTICAST_LOOP, on ? 1 : 0);
}

/// IPv4 takes these options as one byte, IPv6 as an int.
bool UdpSocket::setMulticastOption(int option4, int option6, int value) {
    if (family() == AF_INET6) {
        return setIntOption(IPPROTO_IPV6, option6, value);
    }
    const auto byte = static_cast<unsigned char>(value);
    return setSocketOption(IPPROTO_IP, option4, &byte, sizeof byte);
}

bool UdpSocket::joinMulticastGroup(const InetAddress& group, const InetAddress* interface) {
    return changeMembership(group, interface, IP_ADD_MEMBERSHIP, IPV6_JOIN_GROUP);
}

bool UdpSocket::leaveMulticastGroup(const InetAddress& group, const InetAddress* interface) {
    return changeMembership(group, interface, IP_DROP_MEMBERSHIP, IPV6_LEAVE_GROUP);
}

bool UdpSocket::changeMembership(const InetAddress& group, const InetAddress* interface,
                                 int option4, int option6) {
    if (fd() < 0 || group.family() == AF_UNIX) {
        return refuse(EINVAL);
    }
    const bool sameFamily = interface != nullptr && interface->family() == group.family();
    if (group.family() == AF_INET) {
        ip_mreq request{};
        request.imr_multiaddr = group.getSockAddr4()->sin_addr;
        if (sameFamily) {
            request.imr_interface = interface->getSockAddr4()->sin_addr;
        }
        return setSocketOption(IPPROTO_IP, option4, &request, sizeof request);
    }
    if (group.family() == AF_INET6) {
        ipv6_mreq request{};
        request.ipv6mr_multiaddr = group.getSockAddr6()->sin6_addr;
        request.ipv6mr_interface =
            (sameFamily ? interface->getSockAddr6() : group.getSockAddr6())->sin6_scope_id;
        return setSocketOption(IPPROTO_IPV6, option6, &request, sizeof request);
    }
    return refuse(EAFNOSUPPORT);
}

}  // namespace Vantel::Orbel
