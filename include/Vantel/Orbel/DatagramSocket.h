#pragma once

#include <sys/types.h>

#include <cstddef>

#include "Vantel/Export.h"
#include "Vantel/Orbel/Socket.h"

namespace Vantel::Orbel {

/// A datagram socket of any family, close-on-exec from birth. Results of -1 come with errno;
/// EINVAL is a closed socket or a null buffer with a length.
///
/// Threads: one at a time.
class ORBEL_API DatagramSocket : public Socket {
public:
    ///@{
    /// Creates a socket, without arguments for IPv4 and non-blocking; `protocol` 0 is the family's
    /// own. If that fails it is closed from birth, and the log has a line.
    DatagramSocket();
    DatagramSocket(int family, bool nonBlocking);
    DatagramSocket(int family, int protocol, bool nonBlocking);
    ///@}
    /// Takes over `fd`.
    explicit DatagramSocket(int fd);

    /// As Socket::bind. A Unix socket file that stands at the path is replaced.
    bool bind(const InetAddress& addr) override;
    /// Sets the peer of send, and the only one of recv. False with errno, as bind.
    bool connect(const InetAddress& addr);

    ///@{
    /// As the system calls of these names, without SIGPIPE: the bytes of one datagram, of which a
    /// small `buffer` gets the beginning only. sendTo checks the family of `addr` as bind does.
    ssize_t send(const void* buffer, size_t length, int flags);
    ssize_t recv(void* buffer, size_t length, int flags);
    ssize_t sendTo(const void* buffer, size_t length, const InetAddress& addr, int flags);
    ///@}
    /// As recv; `peer` (null allowed) gets the sender, the invalid address if that has none.
    ssize_t recvFrom(void* buffer, size_t length, InetAddress* peer, int flags);
};

}  // namespace Vantel::Orbel
