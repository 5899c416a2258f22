#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class EventLoop;
class InetAddress;
class StreamSocket;

/// Makes one outgoing connection, TCP or Unix, without blocking, and hands the connected socket to
/// its owner. Failed attempts can be repeated after 100, 200, 400, 800, then always 1000 ms.
///
/// Threads: start and restart in the thread of the loop (asserted); stop, setRetry and serverAddr
/// from any; callbacks are set before start and run in the thread of the loop. Destruction follows
/// the rule of stop(); what a loop that does not run still holds is cleaned up once it runs or
/// ends.
class ORBEL_API StreamConnector {
public:
    /// Gets the connected socket, non-blocking, as its owner.
    using ConnectedCallback = std::function<void(std::unique_ptr<StreamSocket>)>;
    /// May prepare the socket before it connects. False, with errno, gives up for good.
    using SocketSetupCallback = std::function<bool(StreamSocket*)>;

    /// `loop` outlives the connector. `name` is for the owner's use.
    StreamConnector(EventLoop* loop, const std::string& name);
    StreamConnector(const StreamConnector&) = delete;
    StreamConnector& operator=(const StreamConnector&) = delete;
    /// Calls stop().
    ~StreamConnector();

    /// Begins to connect to `addr`; the callback may run before this returns. `timeoutMs` bounds
    /// each attempt, 0 or less leaves it to the kernel. True if an attempt runs, has succeeded, or
    /// is scheduled to be retried; else false with errno: EALREADY while connecting, or why the
    /// attempt failed.
    bool start(const InetAddress& addr, int32_t timeoutMs);
    /// The same with the last address, EDESTADDRREQ if there was none, and with the present delay
    /// of retries, which start() and each success put back to 100 ms.
    bool restart(int32_t timeoutMs);

    /// Ends the attempt and all retries. From another thread this waits for the loop, without
    /// limit; if the loop does not run, the attempt stays as it is, with a warning.
    void stop();

    /// Without a callback, the connected socket is closed.
    void setConnectedCallback(const ConnectedCallback& callback);
    /// See SocketSetupCallback; called for each attempt, retries included.
    void setSocketSetupCallback(const SocketSetupCallback& callback);
    /// Off at first. A retry whose delay runs already is still made.
    void setRetry(bool retry);

    /// A copy; invalid before the first start().
    InetAddress serverAddr() const;

private:
    class ORBEL_LOCAL Internal;

    std::shared_ptr<Internal> mInternal;  // its own callbacks hold it while they run
};

}  // namespace Vantel::Orbel
