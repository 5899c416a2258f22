#pragma once

#include <functional>
#include <memory>

namespace Vantel::Log {

class ITransportLayer;

/// What the session manager watches: one link over an exchangeable transport.
class ISession {
public:
    virtual ~ISession() = default;

    virtual void setTransport(std::shared_ptr<ITransportLayer> transport) = 0;
    /// Returns the transport; the session has none then.
    virtual std::shared_ptr<ITransportLayer> takeTransport() = 0;
    virtual std::shared_ptr<ITransportLayer> getTransport() = 0;
    /// -1 without transport.
    virtual int fd() = 0;
    /// `reconnect` is called with -1 on the poller's thread while the link is lost; it sets a new
    /// transport and returns 0, or -1.
    virtual void setReconnect(std::function<int(int)> reconnect) = 0;
    virtual void onReadable() = 0;
    virtual void onWritable() = 0;
    virtual void onTimer() = 0;
};

}  // namespace Vantel::Log
