#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/DatagramSocket.h"

namespace Vantel::Orbel {

/// A UDP socket over IPv4 or IPv6.
class ORBEL_API UdpSocket : public DatagramSocket {
public:
    /// IPv4, non-blocking.
    UdpSocket();
    UdpSocket(int family, bool nonBlocking);
    /// Takes over `fd`.
    explicit UdpSocket(int fd);

    bool setBroadcast(bool on);
    /// Hops that multicast datagrams may take, 0..255; EINVAL otherwise.
    bool setMulticastTTL(int ttl);
    /// Whether this machine hears its own multicast datagrams.
    bool setMulticastLoop(bool on);

    /// `interface` (null allowed) chooses the network interface: by its address for IPv4, by its
    /// scope id for IPv6. EINVAL for a Unix group, EAFNOSUPPORT for an invalid one.
    bool joinMulticastGroup(const InetAddress& group, const InetAddress* interface);
    bool leaveMulticastGroup(const InetAddress& group, const InetAddress* interface);

private:
    bool setMulticastOption(int option4, int option6, int value);
    bool changeMembership(const InetAddress& group, const InetAddress* interface, int option4,
                          int option6);
};

}  // namespace Vantel::Orbel
