#pragma once

#include <sys/uio.h>

#include <cstddef>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TransportResult.h"

namespace Vantel::Orbel {

class StreamSocket;

/// The byte stream under a connection: a plain socket, or one behind an encrypting engine, which
/// may need the other direction in the middle of an operation. No operation blocks.
///
/// Threads: that of the connection's loop.
class ORBEL_API StreamTransport {
public:
    StreamTransport() = default;
    StreamTransport(const StreamTransport&) = delete;
    StreamTransport& operator=(const StreamTransport&) = delete;
    virtual ~StreamTransport();

    /// The descriptor to poll, -1 if there is none.
    virtual int fd() const = 0;
    ///@{
    /// Owned by the transport; null if there is none.
    virtual StreamSocket* socket() = 0;
    virtual const StreamSocket* socket() const = 0;
    ///@}

    /// Whether handshake() must succeed before the stream can be used. Here: no.
    virtual bool needsHandshake() const;
    /// One step of the handshake; called again after kWantRead and kWantWrite, once the descriptor
    /// is ready. Here: done at once.
    virtual TransportResult handshake();

    ///@{
    /// Transfer up to `length` bytes; less is no failure. `flags` are those of recv(2) and send(2).
    virtual TransportResult read(void* buffer, size_t length, int flags) = 0;
    virtual TransportResult write(const void* buffer, size_t length, int flags) = 0;
    ///@}
    /// Writes the vectors in order until one is not taken whole; `bytes` is what left in all, also
    /// beside a status that ended it. Here: one write() each.
    virtual TransportResult writev(const iovec* vectors, int count, int flags);
    /// Ends the outgoing direction in order. Called again after kWantRead and kWantWrite.
    virtual TransportResult shutdownWrite() = 0;

    /// The pending error of the socket, as an errno value; 0 for none.
    virtual int socketError() = 0;

    ///@{
    /// Whether the application may read or write past the connection's buffers. Here: yes.
    virtual bool supportsRawRead() const;
    virtual bool supportsRawWrite() const;
    ///@}
};

}  // namespace Vantel::Orbel
