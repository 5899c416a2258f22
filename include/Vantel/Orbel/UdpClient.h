#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;
class InetAddress;
class NetBuffer;
class UdpSocket;

/// A DatagramEndpoint on a UDP socket that is connected to one server, and hears that one only.
/// What is not told here is as there, the rule of threads too.
class ORBEL_API UdpClient {
public:
    ///@{
    /// As the one of DatagramEndpoint, with the client in place of the endpoint.
    using MessageCallback =
        std::function<void(UdpClient*, NetBuffer* buffer, const InetAddress& peer)>;
    using ReadableCallback = std::function<void(UdpClient*)>;
    using ErrorCallback = std::function<void(UdpClient*, int error)>;
    ///@}

    /// `loop` is not owned and outlives the client.
    UdpClient(EventLoop* loop, const std::string& name);
    UdpClient(const UdpClient&) = delete;
    UdpClient& operator=(const UdpClient&) = delete;
    /// As the destructor of DatagramEndpoint.
    ~UdpClient();

    ///@{
    /// Makes the socket, binds it to `local` if there is one, and connects it to `server`. False if
    /// started, with a log line; otherwise with errno: EAFNOSUPPORT unless the addresses are both
    /// IPv4 or both IPv6, or why the socket could not be made, bound or connected.
    bool initial(const InetAddress& server);
    bool initial(const InetAddress& server, const InetAddress& local);
    ///@}
    ///@{
    /// Resolve `host` first, which may block for as long as the resolver takes; false if it has no
    /// address of the wanted family.
    bool initial(const std::string& host, uint16_t port, bool ipv6);
    bool initial(const std::string& host, uint16_t port, const InetAddress& local, bool ipv6);
    ///@}

    ///@{
    /// See DatagramEndpoint::start() and DatagramEndpoint::stop().
    bool start();
    void stop();
    ///@}

    ///@{
    /// As those of DatagramEndpoint. sendTo() reaches others than the server; their answers do not
    /// come in.
    ssize_t send(const void* buf, size_t len, int flags);
    ssize_t sendTo(const void* buf, size_t len, const InetAddress& addr, int flags);
    ssize_t recv(void* buf, size_t len, int flags);
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
    /// Null without a socket. The client owns it and alone closes it.
    const UdpSocket* getSocket() const;
    UdpSocket* getSocket();
    ///@}
    /// As given to the constructor; log lines have it.
    const std::string& name() const;
    ///@{
    /// Of the last initial() that succeeded, invalid before.
    InetAddress serverAddr() const;
    InetAddress localAddr() const;
    ///@}
    /// Between start() and stop().
    bool started() const;

private:
    class ORBEL_LOCAL Internal;

    bool open(const InetAddress& server, const InetAddress* local);

    std::shared_ptr<Internal> mInternal;  // the callbacks of the endpoint refer to it weakly
};

}  // namespace Vantel::Orbel
