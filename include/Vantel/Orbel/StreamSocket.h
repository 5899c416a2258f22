#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

#include "Vantel/Export.h"
#include "Vantel/Orbel/Socket.h"

namespace Vantel::Orbel {

/// A stream socket of any family, close-on-exec from birth. No send here raises SIGPIPE. Results
/// of -1 come with errno; EINVAL is a closed socket or a null buffer with a length.
///
/// Threads: one at a time. connect with a time-out, sendAll and recvAll block: not for the thread
/// of a loop.
class ORBEL_API StreamSocket : public Socket {
public:
    ///@{
    /// Creates a socket, without arguments for IPv4 and non-blocking; `protocol` 0 is the family's
    /// own. If that fails it is closed from birth, and the log has a line.
    StreamSocket();
    StreamSocket(int family, bool nonBlocking);
    StreamSocket(int family, int protocol, bool nonBlocking);
    ///@}
    /// Takes over `fd`.
    explicit StreamSocket(int fd);

    /// The next connection as a non-blocking, close-on-exec descriptor, the caller's to close, or
    /// -1. `peer` (null allowed) gets the address of the other side.
    virtual int accept(InetAddress* peer);

    /// True once connected. If that does not happen at once on a non-blocking socket, waits for it
    /// up to `timeoutMs`; below 1 returns false with EINPROGRESS, for the caller to complete. A
    /// Unix socket whose backlog is full starts nothing: it is tried again within the time-out,
    /// and without one fails with EAGAIN.
    virtual bool connect(const InetAddress& addr, int timeoutMs);

    /// False with errno, EBADF for a closed socket.
    bool listen(int backlog);

    ///@{
    /// As send(2) and recv(2): the bytes moved, which may be fewer than `length`.
    ssize_t send(const void* buffer, size_t length, int flags);
    ssize_t recv(void* buffer, size_t length, int flags);
    ///@}

    /// Sends all of it, at most 0x7FFFFFFF bytes (EMSGSIZE), and returns `length`; -1 with
    /// ETIMEDOUT if that takes longer than `timeoutMs` (-1: no limit), also if some of it is sent.
    ssize_t sendAll(const void* buffer, size_t length, int flags, int timeoutMs);
    /// Receives exactly `length` bytes, under the rules of sendAll, without log lines; -1 with
    /// ECONNRESET if the peer ends before. What came until a failure stands in `buffer`.
    ssize_t recvAll(void* buffer, size_t length, int flags, int timeoutMs);

    ///@{
    /// As readv(2) and sendmsg(2). EINVAL also for null `vectors` or a `count` below 1.
    ssize_t readv(const iovec* vectors, int count);
    ssize_t writev(const iovec* vectors, int count, int flags);
    ///@}

    ///@{
    /// Socket::shutdown() of one direction or both.
    bool shutdownWrite();
    bool shutdownRead();
    bool shutdownBoth();
    ///@}
};

}  // namespace Vantel::Orbel
