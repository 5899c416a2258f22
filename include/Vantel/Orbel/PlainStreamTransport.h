#pragma once

#include <memory>

#include "Vantel/Export.h"
#include "Vantel/Orbel/StreamTransport.h"

namespace Vantel::Orbel {

/// The stream of a socket as it is. Without a socket every operation fails with ENOTCONN.
class ORBEL_API PlainStreamTransport : public StreamTransport {
public:
    /// Null is allowed, see above.
    explicit PlainStreamTransport(std::unique_ptr<StreamSocket> socket);
    ~PlainStreamTransport() override;

    int fd() const override;
    StreamSocket* socket() override;
    const StreamSocket* socket() const override;
    TransportResult read(void* buffer, size_t length, int flags) override;
    TransportResult write(const void* buffer, size_t length, int flags) override;
    /// One system call for all vectors.
    TransportResult writev(const iovec* vectors, int count, int flags) override;
    TransportResult shutdownWrite() override;
    int socketError() override;

private:
    std::unique_ptr<StreamSocket> mSocket;
};

}  // namespace Vantel::Orbel
