#pragma once

#include <memory>

#include "Vantel/Export.h"

namespace Vantel::Orbel {

class SslEngine;
class StreamSocket;
class StreamTransport;

/// Makes encrypting engines; supplied by the application, which also keeps keys and certificates.
class ORBEL_API SslContext {
public:
    SslContext() = default;
    SslContext(const SslContext&) = delete;
    SslContext& operator=(const SslContext&) = delete;
    virtual ~SslContext();

    /// An engine for `socket`, which outlives it. Null on failure.
    virtual std::unique_ptr<SslEngine> createEngine(StreamSocket& socket) = 0;

    /// An encrypted transport that owns `socket`. Null if there is no engine, or with EINVAL if
    /// `socket` is null or closed; the socket is gone then.
    std::unique_ptr<StreamTransport> createTransport(std::unique_ptr<StreamSocket> socket);
};

}  // namespace Vantel::Orbel
