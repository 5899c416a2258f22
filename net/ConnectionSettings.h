#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "net/StreamCallbacks.h"

namespace Vantel::Orbel {

class EventLoop;
class StreamConnection;
class StreamSocket;
class StreamTransport;

/// What client and server give each of their connections. Set by the application before the first
/// connection, read only afterwards.
struct ConnectionSettings {
    /// A connection on `socket` that carries these settings. Null, with errno, if the transport
    /// factory returned none; the socket is closed then.
    std::shared_ptr<StreamConnection> makeConnection(EventLoop* loop, const std::string& name,
                                                     std::unique_ptr<StreamSocket> socket) const;

    StreamCallbacks callbacks;
    std::function<std::unique_ptr<StreamTransport>(std::unique_ptr<StreamSocket>)> transportFactory;
    size_t maxInputBufferSize = 0;  // 0: the connection's own limit stands
    size_t maxOutputBufferSize = 0;
};

}  // namespace Vantel::Orbel
