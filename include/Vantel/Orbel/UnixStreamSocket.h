#pragma once

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

/// A Unix domain stream socket, which can carry descriptors and credentials beside the bytes.
class ORBEL_API UnixStreamSocket : public StreamSocket {
public:
    /// Creates a non-blocking socket. If that fails it is closed from birth, and the log has a
    /// line.
    UnixStreamSocket();
    /// Takes over `fd`.
    explicit UnixStreamSocket(int fd);

    /// A socket file that stands at the path is replaced, whether somebody listens there or not.
    /// EAFNOSUPPORT for an address of another family.
    bool bind(const InetAddress& addr) override;
    /// As StreamSocket::connect; EAFNOSUPPORT for an address of another family.
    bool connect(const InetAddress& addr, int timeoutMs) override;

    /// Sends one zero byte with these credentials; the kernel checks them. False with errno.
    bool sendCredentials(int pid, unsigned uid, unsigned gid);
    /// Receives one byte with credentials (null pointers are skipped); setPassCred(true) comes
    /// first. False if the byte came without them (EPROTO), or did not come; descriptors that came
    /// with it are closed.
    bool recvCredentials(int* pid, unsigned* uid, unsigned* gid);
    /// Always true, also if the kernel refused.
    bool setPassCred(bool on);

    /// Sends bytes (at least one, if there are descriptors) together with descriptors, at most
    /// 253, which stay the caller's. EINVAL for a breach of that.
    ssize_t sendWithFds(const void* buffer, size_t length, const int* fds, size_t fdCount,
                        int flags);
    /// Receives bytes and up to `maxFds` descriptors, close-on-exec and the caller's from then on;
    /// their number goes to `fdCount` (null allowed). Descriptors beyond the limit are closed, or
    /// make this fail with EMSGSIZE: then the bytes are lost, all descriptors closed and their
    /// places in `fds` -1.
    ssize_t recvWithFds(void* buffer, size_t length, int* fds, size_t maxFds, size_t* fdCount,
                        int flags);

    /// Sends one descriptor, with one zero byte if there is nothing else to send. A negative `fd`
    /// is a plain send.
    ssize_t sendFd(int fd, const void* buffer, size_t length);
    /// Receives bytes and at most one descriptor; `fd` gets -1 if none came.
    ssize_t recvFd(int* fd, void* buffer, size_t length);
};

}  // namespace Vantel::Orbel
