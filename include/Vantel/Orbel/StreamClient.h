#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamConnection.h"

namespace Vantel::Orbel {

class EventLoop;
class InetAddress;
class StreamSocket;
class StreamTransport;

/// Keeps one outgoing connection, TCP or Unix, and makes it anew if asked to. Its connections are
/// called "<name>:<address>#<n>", with n counting from 1.
///
/// Threads: connect, disconnect, stop, enableRetry, connection, serverAddr and the destructor from
/// any thread; from another one than the loop's they wait for the loop, and so must not be called
/// by a thread that the loop itself waits for. Settings and callbacks are set before connect and
/// take no lock. Callbacks run in the thread of the loop and may call anything here; they may
/// destroy the client too.
class ORBEL_API StreamClient {
public:
    /// `loop` is not owned and outlives the client.
    StreamClient(EventLoop* loop, const std::string& name);
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;
    /// As stop(). Destroy the client in the loop's thread or while the loop runs: otherwise its
    /// connection stays open, with a warning, until the loop runs again or ends.
    virtual ~StreamClient();

    /// Begins to connect. True if the attempt could be begun: that the connection stands is told
    /// by the connection callback only, and a failed attempt by the log. `timeoutMs` bounds each
    /// attempt; 0 or less leaves it to the kernel. From another thread this waits for the loop for
    /// `timeoutMs` + 50 ms, or 10 ms if `timeoutMs` is below 1; the task stays queued after that.
    /// False with errno: EINVAL for an address of another family than this class takes, EISCONN
    /// while there is a connection, ETIMEDOUT if the loop did not come to it, or why the attempt
    /// failed.
    bool connect(const InetAddress& addr, int32_t timeoutMs);

    /// Ends the connection in order: what is queued is sent, then the peer has a second to close.
    /// Without a connection, ends the attempts. No reconnection follows. If the loop does not run,
    /// only that holds, and errno is ESHUTDOWN.
    void disconnect();

    /// Drops the connection and all attempts at once; the close callback does not run. Retries are
    /// off afterwards. If the loop does not run, only that holds, with a warning.
    void stop();

    /// Retries failed attempts (see StreamConnector) and reconnects after a lost connection, until
    /// disconnect() or stop().
    void enableRetry();
    /// Whether enableRetry() holds; disconnect() leaves it on, for the next connect().
    bool retry() const;

    /// The present connection, null if there is none.
    StreamConnectionPtr connection() const;

    ///@{
    /// Of each connection from the next one on; see the callbacks of StreamConnection.
    void setConnectionCallback(const StreamConnectionCallback& callback);
    void setMessageCallback(const StreamMessageCallback& callback);
    void setReadableCallback(const StreamConnectionCallback& callback);
    void setWritableCallback(const StreamConnectionCallback& callback);
    void setWriteCompleteCallback(const StreamConnectionCallback& callback);
    void setErrorCallback(const StreamErrorCallback& callback);
    void setCloseCallback(const StreamConnectionCallback& callback);
    ///@}

    /// Makes the transport of each connection from its connected socket, for instance an encrypted
    /// one. A null result, with errno, loses that connection. Without a factory it is a plain one.
    void setTransportFactory(
        const std::function<std::unique_ptr<StreamTransport>(std::unique_ptr<StreamSocket>)>&
            factory);
    /// Prepares each socket before it connects; false gives up, retries included.
    void setSocketSetupCallback(const std::function<bool(StreamSocket*)>& callback);
    ///@{
    /// Limits in bytes for each connection; 0 leaves its default.
    void setMaxInputBufferSize(size_t sizeBytes);
    void setMaxOutputBufferSize(size_t sizeBytes);
    ///@}

    ///@{
    /// As given to the constructor.
    EventLoop* getLoop() const;
    const std::string& name() const;
    ///@}
    /// The address last connected to, invalid before.
    InetAddress serverAddr() const;

    /// Whether connect() takes this address: here any IPv4, IPv6 or Unix address.
    virtual bool checkServerAddress(const InetAddress& addr) const;

private:
    class ORBEL_LOCAL Internal;

    std::shared_ptr<Internal> mInternal;  // tasks in the loop refer to it weakly
};

}  // namespace Vantel::Orbel
