#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;
class InetAddress;
class NetBuffer;
class UdpSocket;

/// A DatagramEndpoint on a UDP socket that is bound to an address and hears everyone. What is not
/// told here is as there, the rule of threads too.
class ORBEL_API UdpServer {
public:
    ///@{
    /// As the one of DatagramEndpoint, with the server in place of the endpoint.
    using MessageCallback =
        std::function<void(UdpServer*, NetBuffer* buffer, const InetAddress& peer)>;
    using ReadableCallback = std::function<void(UdpServer*)>;
    using ErrorCallback = std::function<void(UdpServer*, int error)>;
    ///@}

    /// `loop` is not owned and outlives the server.
    UdpServer(EventLoop* loop, const std::string& name);
    UdpServer(const UdpServer&) = delete;
    UdpServer& operator=(const UdpServer&) = delete;
    /// As the destructor of DatagramEndpoint.
    ~UdpServer();

    /// Makes the socket and binds it to `addr`, IPv4 or IPv6; port 0 lets the kernel choose one.
    /// `device` (may be empty) restricts it to one network interface; with `reusePort` several
    /// sockets share the port. False if started, or with errno EAFNOSUPPORT for an address of
    /// another family, both with a log line; or with the errno of the step that failed.
    bool initial(const InetAddress& addr, const std::string& device, bool reusePort);

    ///@{
    /// See DatagramEndpoint::start() and DatagramEndpoint::stop().
    bool start();
    void stop();
    ///@}

    ///@{
    /// As those of DatagramEndpoint.
    ssize_t sendTo(const void* buf, size_t len, const InetAddress& addr, int flags);
    ssize_t recvFrom(void* buf, size_t len, InetAddress* peer, int flags);
    ///@}

    ///@{
    /// As that of DatagramEndpoint.
    void setMessageCallback(const MessageCallback& callback);
    /// As that of DatagramEndpoint; an empty one brings the message callback back.
    void setReadableCallback(const ReadableCallback& callback);
    void setErrorCallback(const ErrorCallback& callback);
    void setMaxDatagramSize(size_t sizeBytes);
    ///@}

    /// As given to the constructor.
    EventLoop* getLoop() const;
    ///@{
    /// Null without a socket. The server owns it and alone closes it.
    const UdpSocket* getSocket() const;
    UdpSocket* getSocket();
    ///@}
    /// As given to the constructor; log lines have it.
    const std::string& name() const;
    /// Of the last initial() that succeeded, with the port in use; invalid before.
    InetAddress listenAddr() const;
    /// Between start() and stop().
    bool started() const;

private:
    class ORBEL_LOCAL Internal;

    std::shared_ptr<Internal> mInternal;  // the callbacks of the endpoint refer to it weakly
};

}  // namespace Vantel::Orbel
