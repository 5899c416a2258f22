#pragma once

#include <memory>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamTransport.h"

namespace Vantel::Orbel {

class SslEngine;

/// A stream behind an encrypting engine. Without an engine, and for reads and writes before the
/// handshake is done, every operation fails with ENOTCONN. Nobody reads or writes past the engine.
class ORBEL_API SslStreamTransport : public StreamTransport {
public:
    /// `engine` works on `socket` and is destroyed before it. Either may be null.
    SslStreamTransport(std::unique_ptr<StreamSocket> socket, std::unique_ptr<SslEngine> engine);
    ~SslStreamTransport() override;

    int fd() const override;
    StreamSocket* socket() override;
    const StreamSocket* socket() const override;
    bool needsHandshake() const override;
    TransportResult handshake() override;
    /// `flags` mean nothing to an engine.
    TransportResult read(void* buffer, size_t length, int flags) override;
    TransportResult write(const void* buffer, size_t length, int flags) override;
    TransportResult writev(const iovec* vectors, int count, int flags) override;
    TransportResult shutdownWrite() override;
    int socketError() override;
    bool supportsRawRead() const override;
    bool supportsRawWrite() const override;

private:
    bool ready() const;

    std::unique_ptr<StreamSocket> mSocket;
    std::unique_ptr<SslEngine> mEngine;  // uses the socket: destroyed before it
    bool mHandshakeDone = false;
};

}  // namespace Vantel::Orbel
