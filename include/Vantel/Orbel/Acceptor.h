#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;
class InetAddress;

/// A listening stream socket, TCP or Unix, that hands accepted descriptors to its owner. When the
/// process has no descriptor left, the connection at the head of the queue is dropped (its peer
/// sees the end) rather than left to wake the loop for ever.
///
/// Threads: listen() in the thread of the loop, the rest before it. The destructor in the thread of
/// the loop, its own callback included, or from another one, which then waits for the loop; if the
/// loop does not run, the listener stays open until it runs again or ends.
class ORBEL_API Acceptor {
public:
    /// Gets a non-blocking, close-on-exec descriptor, which it owns from then on.
    using NewConnectionCallback = std::function<void(int fd, const InetAddress& peer)>;

    /// `loop` outlives the acceptor. Asserts that the spare descriptor can be opened.
    explicit Acceptor(EventLoop* loop);
    Acceptor(const Acceptor&) = delete;
    Acceptor& operator=(const Acceptor&) = delete;
    /// Stops listening. A Unix socket file stays.
    ~Acceptor();

    /// Makes and binds the socket; port 0 lets the kernel choose. `device` binds it to a network
    /// interface, empty to none. On a Unix address a socket file that is there is replaced, any
    /// other file is left and makes this fail. False with errno and a log line on failure, and
    /// with EINVAL while listening.
    bool initial(const InetAddress& addr, const std::string& device, bool reusePort);

    /// Begins to accept (loop thread, asserted). True if it listens, now or already; false with
    /// errno otherwise.
    bool listen();

    /// Without a callback, accepted descriptors are closed at once.
    void setNewConnectionCallback(const NewConnectionCallback& callback);

    /// From the first successful listen() on.
    bool listening() const;
    /// The address really bound, with the port that the kernel chose.
    const InetAddress& listenAddr() const;

private:
    class ORBEL_LOCAL Internal;

    std::unique_ptr<Internal> mInternal;
};

}  // namespace Vantel::Orbel
