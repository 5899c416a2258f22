#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"
#include "Vantel/Orbel/EventLoopThread.h"  // ThreadInitCallback
#include "Vantel/Orbel/StreamConnection.h"

namespace Vantel::Orbel {

class EventLoop;
class EventLoopGroup;
class InetAddress;
class StreamSocket;
class StreamTransport;

/// Listens on one address, TCP or Unix, in its base loop, and spreads the accepted connections over
/// the loops of a group, in turn. Its connections are called "<name>-#<n>", with n counting from 1.
/// There is no limit on their number.
///
/// Threads: start, stop, connectionCount and the destructor from any thread; from another one than
/// the base loop's, the first two wait for the base loop, and stop() waits for each connection's
/// loop, without limit, so they must not be called by a thread that such a loop waits for. The
/// rest is set before start and takes no lock. Callbacks run in the connection's loop and may call
/// stop().
class ORBEL_API StreamServer {
public:
    /// `loop` is the base loop; it is not owned and outlives the server. The server has a group of
    /// its own without threads, so that its connections live in the base loop.
    StreamServer(EventLoop* loop, const std::string& name);
    /// With setWorkGroup(group).
    StreamServer(EventLoop* loop, const std::string& name, EventLoopGroup* group);
    StreamServer(const StreamServer&) = delete;
    StreamServer& operator=(const StreamServer&) = delete;
    /// As stop(). Destroy the server in the base loop's thread or while that loop runs: otherwise
    /// listener and connections stay open, with a warning, until their loops run again or end.
    virtual ~StreamServer();

    /// Binds the address; see Acceptor::initial. False with a log line, and errno, on failure.
    virtual bool initial(const InetAddress& addr, const std::string& device, bool reusePort);

    /// Starts the own group, and listens. Blocks until the base loop runs, unless called in its
    /// thread. True if started, now or already. False with errno or a log line if it cannot listen
    /// or start a thread, is not initialised, or was given a group that is not started.
    bool start();

    /// Closes the listener, removes its socket file, drops all connections (unsent output
    /// included) without the close callback, and stops the own group. initial() is needed before
    /// the next start(). Called in a thread of the own group, it cannot wait for that one. If the
    /// base loop does not run, all stays open, with a warning.
    void stop();

    /// A group to share, which the caller starts before start() and stops after stop(); null goes
    /// back to the own one. Ignored with a warning once started.
    void setWorkGroup(EventLoopGroup* group);
    ///@{
    /// See EventLoopGroup. For the own group, before start (asserted); ignored with a warning on a
    /// shared one.
    void setWorkThreadNum(size_t threadNum);
    void setThreadInitCallback(const ThreadInitCallback& callback);
    ///@}

    /// Makes the transport of each connection from its socket, for instance an encrypted one. A
    /// null result, with errno, loses that connection. Without a factory it is a plain one.
    /// Ignored with a warning once started.
    void setTransportFactory(
        const std::function<std::unique_ptr<StreamTransport>(std::unique_ptr<StreamSocket>)>&
            factory);

    /// The kernel's send buffer of each connection in bytes; 0 leaves it.
    void setSendBufferSize(size_t sizeBytes);
    /// Another name for setSendBufferSize.
    void setOutputReserve(size_t sizeBytes);
    ///@{
    /// Limits in bytes for each connection; 0 leaves its default.
    void setMaxInputBufferSize(size_t sizeBytes);
    void setMaxOutputBufferSize(size_t sizeBytes);
    ///@}

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

    /// From a successful start() to stop().
    bool started() const;
    /// As given to the constructor.
    const std::string& name() const;
    /// The address really bound, with the port that the kernel chose. Invalid before initial(), and
    /// as it was after stop().
    const InetAddress& listenAddr() const;
    /// The base loop.
    EventLoop* getLoop() const;
    /// Falls once the base loop has heard of a close.
    size_t connectionCount() const;

    /// Whether initial() takes this address: here any IPv4, IPv6 or Unix address.
    virtual bool checkListenAddress(const InetAddress& addr) const;

private:
    class ORBEL_LOCAL Internal;

    std::shared_ptr<Internal> mInternal;  // tasks in the loops refer to it weakly
};

}  // namespace Vantel::Orbel
