#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/DatagramSocket.h"

namespace Vantel::Orbel {

/// A UDP socket over IPv4 or IPv6.
class ORBEL_API UdpSocket : public DatagramSocket {
public:
    ///@{
    /// Creates a socket, without arguments for IPv4 and non-blocking. If that fails it is closed
    /// from birth, and the log has a line.
    UdpSocket();
    UdpSocket(int family, bool nonBlocking);
    ///@}
    /// Takes over `fd`.
    explicit UdpSocket(int fd);

    /// Whether the socket may send to broadcast addresses; the kernel refuses (EACCES) otherwise.
    bool setBroadcast(bool on);
    /// Hops that multicast datagrams may take, 0..255; EINVAL otherwise.
    bool setMulticastTTL(int ttl);
    /// Whether this machine hears its own multicast datagrams.
    bool setMulticastLoop(bool on);

    ///@{
    /// `interface` chooses the network interface: by its address for IPv4, by its scope id for
    /// IPv6. Null, or one of the other family, leaves the choice to the kernel, for IPv6 to the
    /// scope id of the group. EINVAL for a Unix group and a closed socket, EAFNOSUPPORT for an
    /// invalid group.
    bool joinMulticastGroup(const InetAddress& group, const InetAddress* interface);
    bool leaveMulticastGroup(const InetAddress& group, const InetAddress* interface);
    ///@}

private:
    bool setMulticastOption(int option4, int option6, int value);
    bool changeMembership(const InetAddress& group, const InetAddress* interface, int option4,
                          int option6);
};

}  // namespace Vantel::Orbel
