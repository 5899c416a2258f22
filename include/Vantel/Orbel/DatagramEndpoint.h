#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class DatagramSocket;
class EventLoop;
class InetAddress;
class NetBuffer;
template <class Facade>
class UdpFacade;

/// One datagram socket on one EventLoop. It hands each datagram that comes to the application, or
/// tells it that the socket is readable. A datagram is sent at once or not at all: there is no
/// queue. An error of the socket is reported and ends nothing.
///
/// In order: construct, set the callbacks, one of initial, bind and connect, start; then stop.
/// After stop, initial, bind or connect begin anew.
///
/// Threads: start, stop, send, sendTo, started, initialized and the destructor from any thread;
/// from another one than the loop's they wait for the loop, and so must not be called by a thread
/// that the loop itself waits for. Everything else before start, or in the loop's thread. Callbacks
/// run in the thread of the loop and may call anything here, but must not replace themselves; they
/// may destroy the endpoint too.
class ORBEL_API DatagramEndpoint {
public:
    /// `buffer` holds one datagram, for the length of the call only; it is empty if the datagram
    /// is.
    using MessageCallback =
        std::function<void(DatagramEndpoint*, NetBuffer* buffer, const InetAddress& peer)>;
    /// Takes what has come by recv or recvFrom.
    using ReadableCallback = std::function<void(DatagramEndpoint*)>;
    /// `error` is an errno number.
    using ErrorCallback = std::function<void(DatagramEndpoint*, int error)>;

    /// `loop` is not owned and outlives the endpoint.
    DatagramEndpoint(EventLoop* loop, const std::string& name);
    DatagramEndpoint(const DatagramEndpoint&) = delete;
    DatagramEndpoint& operator=(const DatagramEndpoint&) = delete;
    /// As stop(). Destroy the endpoint in the loop's thread or while the loop runs: otherwise its
    /// socket stays open, silently, until the loop runs again or ends.
    ~DatagramEndpoint();

    /// Takes over `socket`, makes it non-blocking, and drops the one before. False with errno, and
    /// the socket is gone: EBUSY if started, EINVAL if it is null or closed.
    bool initial(std::unique_ptr<DatagramSocket> socket);
    ///@{
    /// Make a socket in the family of the address, IPv4, IPv6 or Unix. False with errno: EBUSY if
    /// started, or why the socket could not be made, bound or connected; what was there before
    /// stays then. A connected endpoint hears its server only.
    bool bind(const InetAddress& addr);
    bool connect(const InetAddress& server);
    bool connect(const InetAddress& server, const InetAddress& local);
    ///@}

    /// Begins to read. True if it reads already. False with errno EINVAL without a socket. From
    /// another thread this blocks until the loop runs.
    bool start();
    /// Closes the socket; the callbacks stay. Does nothing before initial, bind or connect. In a
    /// callback, no datagram is delivered any more. From another thread this blocks until the loop
    /// runs.
    void stop();

    ///@{
    /// As send(2) and sendto(2), without waiting for room: the bytes sent, or -1 with errno:
    /// ENOTCONN without a socket, ESHUTDOWN in another thread while the loop does not run, EAGAIN
    /// if the socket has no room. The error may be that of an earlier datagram (ECONNREFUSED).
    /// From another thread `buf` is not copied: the call waits until the loop has sent it.
    ssize_t send(const void* buf, size_t len, int flags);
    ssize_t sendTo(const void* buf, size_t len, const InetAddress& addr, int flags);
    ///@}

    ///@{
    /// As recv(2) and recvfrom(2), for the readable callback: the bytes received, or -1 with errno,
    /// ENOTCONN without a socket. `peer` (null allowed) gets the sender. In the loop's thread
    /// (asserted).
    ssize_t recv(void* buf, size_t len, int flags);
    ssize_t recvFrom(void* buf, size_t len, InetAddress* peer, int flags);
    ///@}

    /// Called for each datagram until none waits, however many come.
    void setMessageCallback(const MessageCallback& callback);
    /// Called as long as datagrams wait, for the application to take them by recv or recvFrom. It
    /// goes before a message callback, which is not called then. With neither of the two the first
    /// datagram ends all reading, with a warning, until the endpoint gets another socket.
    void setReadableCallback(const ReadableCallback& callback);
    /// Called after the log line for an error of the socket, such as a datagram that was refused.
    void setErrorCallback(const ErrorCallback& callback);
    /// Bytes, 65536 at first; 0 is ignored. Longer datagrams are cut to this, silently.
    void setMaxDatagramSize(size_t sizeBytes);

    /// As given to the constructor.
    EventLoop* getLoop() const;
    ///@{
    /// Null without a socket. The endpoint owns it and alone closes it.
    const DatagramSocket* getSocket() const;
    DatagramSocket* getSocket();
    ///@}
    /// As given to the constructor; log lines have it.
    const std::string& name() const;
    /// Once there has been a socket, also after stop().
    bool initialized() const;
    /// Between start() and stop().
    bool started() const;
    /// The invalid address without a socket.
    InetAddress localAddr() const;

private:
    class ORBEL_LOCAL Internal;
    template <class Facade>
    friend class UdpFacade;

    void end();

    std::shared_ptr<Internal> mInternal;  // tasks and the channel in the loop refer to it
};

}  // namespace Vantel::Orbel
