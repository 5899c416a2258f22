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
    /// IPv4, non-blocking.
    DatagramSocket();
    DatagramSocket(int family, bool nonBlocking);
    DatagramSocket(int family, int protocol, bool nonBlocking);
    /// Takes over `fd`.
    explicit DatagramSocket(int fd);

    /// A Unix socket file that stands at the path is replaced.
    bool bind(const InetAddress& addr) override;
    /// Sets the peer of send, and the only one of recv.
    bool connect(const InetAddress& addr);

    ssize_t send(const void* buffer, size_t length, int flags);
    ssize_t recv(void* buffer, size_t length, int flags);
    ssize_t sendTo(const void* buffer, size_t length, const InetAddress& addr, int flags);
    /// `peer` (null allowed) gets the sender.
    ssize_t recvFrom(void* buffer, size_t length, InetAddress* peer, int flags);
};

}  // namespace Vantel::Orbel
