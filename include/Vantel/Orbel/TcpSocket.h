#pragma once

#include <memory>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

/// A TCP socket over IPv4 or IPv6.
class ORBEL_API TcpSocket : public StreamSocket {
public:
    /// IPv4, non-blocking.
    TcpSocket();
    TcpSocket(int family, bool nonBlocking);
    /// Takes over `fd`.
    explicit TcpSocket(int fd);

    /// As accept, with an owner; null on failure.
    std::unique_ptr<TcpSocket> acceptConnection(InetAddress* peer);

    /// As StreamSocket::connect; a Unix address is refused.
    bool connect(const InetAddress& addr, int timeoutMs) override;

    static bool setTcpNoDelay(int fd, bool on);
    bool setTcpNoDelay(bool on);
    bool setKeepAlive(bool on);
    /// Seconds without traffic before the first probe.
    bool setKeepIdle(int seconds);
    /// Seconds between probes.
    bool setKeepInterval(int seconds);
    /// Unanswered probes that end the connection.
    bool setKeepCount(int count);
};

}  // namespace Vantel::Orbel
