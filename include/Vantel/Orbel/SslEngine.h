#pragma once

#include <cstddef>

#include "Vantel/Export.h"
#include "Vantel/Orbel/TransportResult.h"

namespace Vantel::Orbel {

/// Encryption of one stream, supplied by the application: it reads and writes the socket that it
/// was made for, without blocking, and answers with what it needs next.
///
/// Threads: that of the connection's loop.
class ORBEL_API SslEngine {
public:
    SslEngine() = default;
    SslEngine(const SslEngine&) = delete;
    SslEngine& operator=(const SslEngine&) = delete;
    virtual ~SslEngine();

    /// Called again and again until it answers kOk.
    virtual TransportResult handshake() = 0;
    ///@{
    /// Plain bytes in and out, at most `length`, which is above 0. Called after the handshake only.
    virtual TransportResult read(void* buffer, size_t length) = 0;
    virtual TransportResult write(const void* buffer, size_t length) = 0;
    ///@}
    /// Ends the outgoing direction; called again after kWantRead and kWantWrite.
    virtual TransportResult shutdown() = 0;
};

}  // namespace Vantel::Orbel
