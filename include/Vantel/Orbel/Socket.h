#pragma once

#include <cstdint>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class InetAddress;

/// Owns one socket descriptor. It does not know the event loop. What fails leaves errno set, and a
/// line in the log where a system call refused; on a closed socket everything fails (EBADF where
/// not told otherwise).
///
/// Threads: one at a time. waitEvent and its kin block: not for the thread of a loop.
class ORBEL_API Socket {
public:
    /// Creates a socket; the type may hold SOCK_NONBLOCK and SOCK_CLOEXEC. If that fails the
    /// socket is closed from birth.
    Socket(int family, int type, int protocol);
    /// Takes over `fd` (negative: a closed socket) and asks the kernel for the rest.
    explicit Socket(int fd);
    ///@{
    /// Moves the descriptor: `other` is closed afterwards. The assignment closes the one it had.
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    ///@}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    /// Closes the descriptor. errno is kept.
    virtual ~Socket();

    /// False with errno: EINVAL for an invalid address, EAFNOSUPPORT for one of another family, or
    /// why the kernel refused.
    virtual bool bind(const InetAddress& addr);

    /// False if it is closed already.
    bool close();
    /// `how` is SHUT_RD, SHUT_WR or SHUT_RDWR.
    bool shutdown(int how);

    /// -1 when closed. What the next three say is 0 then, and where the kernel did not tell.
    int32_t fd() const { return mFd; }
    /// AF_INET, AF_INET6, AF_UNIX; 0 takes addresses of any family.
    int32_t family() const { return mFamily; }
    /// Without SOCK_NONBLOCK and SOCK_CLOEXEC.
    int32_t type() const { return mType; }
    /// As it was asked for, so 0 may stand for the own one of the family; what the kernel says of a
    /// descriptor that was taken over.
    int32_t protocol() const { return mProtocol; }

    /// Sets or clears the flag FD_CLOEXEC. Like the operations on file flags it logs nothing.
    bool setCloseOnExec(bool on);
    /// The file status flags (F_GETFL), -1 with errno on failure.
    int getFileFlags() const;
    /// Replaces the file status flags (F_SETFL).
    bool setFileFlags(int flags);
    /// False also if the kernel does not tell.
    bool isNonBlocking() const;
    /// Leaves the other status flags as they are.
    bool setNonBlocking(bool on);

    /// Restricts the socket to one network interface, 1..15 bytes; mostly needs privileges.
    bool bindToDevice(const std::string& name);

    ///@{
    /// The address of one end as the kernel knows it: of a socket that was bound to port 0, the
    /// port it got. The invalid address, with errno and a log line, on failure.
    InetAddress getLocalAddress() const;
    InetAddress getPeerAddress() const;
    static InetAddress getLocalAddr(int fd);
    static InetAddress getPeerAddr(int fd);
    ///@}

    ///@{
    /// As setsockopt(2) and getsockopt(2), with a bool for the result.
    bool setSocketOption(int level, int name, const void* value, unsigned length);
    bool getSocketOption(int level, int name, void* value, unsigned* length) const;
    ///@}

    ///@{
    /// The options SO_REUSEADDR and SO_REUSEPORT; to be set before bind.
    bool setReuseAddr(bool on);
    bool setReusePort(bool on);
    ///@}
    ///@{
    /// Bytes; the kernel doubles what it is told.
    bool setRecvBufSize(int sizeBytes);
    bool setSendBufSize(int sizeBytes);
    ///@}
    ///@{
    /// Of blocking calls, in milliseconds; 0 for none. EINVAL if negative.
    bool setRecvTimeout(int timeoutMs);
    bool setSendTimeout(int timeoutMs);
    ///@}
    ///@{
    /// The size that the kernel really uses, in bytes; -1 on failure.
    int getRecvBufSize() const;
    int getSendBufSize() const;
    ///@}
    /// Takes the pending error of the socket (0: none), or the errno of asking for it.
    int getSocketError() const;

    ///@{
    /// Bits for waitEvent.
    static constexpr int kReadEvent = 1;
    static constexpr int kWriteEvent = 2;
    ///@}

    ///@{
    /// Waits for one of `events`; `timeoutMs` -1 is without limit. A signal starts the wait anew.
    /// True if one of them came. False with errno otherwise: EINVAL for an argument out of range,
    /// ETIMEDOUT, the error of the socket (EPIPE if it hung up without one). `revents` (null
    /// allowed) gets the bits that came, 0 on time-out.
    bool waitEvent(int events, int timeoutMs, int* revents) const;
    bool waitReadable(int timeoutMs, int* revents) const;
    bool waitWritable(int timeoutMs, int* revents) const;
    ///@}

    /// socket(2) with a log line on failure: the descriptor, or -1.
    static int create(int family, int type, int protocol);

protected:
    /// Whether `addr` can be used on this socket by the operation called `what`. False with a log
    /// line and errno EINVAL (invalid) or EAFNOSUPPORT (another family).
    bool checkAddressFamily(const InetAddress& addr, const char* what) const;

    /// setSocketOption for the many options whose value is an int.
    bool setIntOption(int level, int name, int value);

private:
    void adopt(Socket& other) noexcept;
    int getIntOption(int level, int name) const;
    bool setTimeoutOption(int name, int timeoutMs);

    int32_t mFd;
    int32_t mFamily;
    int32_t mType;
    int32_t mProtocol;
};

}  // namespace Vantel::Orbel
