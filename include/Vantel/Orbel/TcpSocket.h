#pragma once

#include <memory>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

/// A TCP socket over IPv4 or IPv6.
class ORBEL_API TcpSocket : public StreamSocket {
public:
    ///@{
    /// Creates a socket, without arguments for IPv4 and non-blocking. If that fails it is closed
    /// from birth, and the log has a line.
    TcpSocket();
    TcpSocket(int family, bool nonBlocking);
    ///@}
    /// Takes over `fd`.
    explicit TcpSocket(int fd);

    /// As accept, with an owner; null on failure.
    std::unique_ptr<TcpSocket> acceptConnection(InetAddress* peer);

    /// As StreamSocket::connect; EAFNOSUPPORT for a Unix address.
    bool connect(const InetAddress& addr, int timeoutMs) override;

    ///@{
    /// With `on` small writes leave at once, instead of waiting for the acknowledgement of earlier
    /// ones (TCP_NODELAY). EINVAL for a negative descriptor, which is that of a closed socket.
    static bool setTcpNoDelay(int fd, bool on);
    bool setTcpNoDelay(bool on);
    ///@}
    /// Probes a silent peer, at the times that the next three set; the kernel's begin after hours.
    bool setKeepAlive(bool on);
    /// Seconds without traffic before the first probe.
    bool setKeepIdle(int seconds);
    /// Seconds between probes.
    bool setKeepInterval(int seconds);
    /// Unanswered probes that end the connection.
    bool setKeepCount(int count);
};

}  // namespace Vantel::Orbel
