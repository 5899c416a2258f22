#include "Vantel/Orbel/PlainStreamTransport.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

namespace {

constexpr TransportResult kNotConnected{TransportStatus::kError, -1, ENOTCONN};
constexpr TransportResult kNothing{TransportStatus::kOk, 0, 0};

/// The failure in errno; `wanted` is what the operation waits for.
TransportResult failure(TransportStatus wanted) {
    return {errno == EAGAIN ? wanted : TransportStatus::kError, -1, errno};
}

}  // namespace

PlainStreamTransport::PlainStreamTransport(std::unique_ptr<StreamSocket> socket)
    : mSocket(std::move(socket)) {}

PlainStreamTransport::~PlainStreamTransport() = default;

int PlainStreamTransport::fd() const {
    return mSocket ? mSocket->fd() : -1;
}

StreamSocket* PlainStreamTransport::socket() {
    return mSocket.get();
}

const StreamSocket* PlainStreamTransport::socket() const {
    return mSocket.get();
}

TransportResult PlainStreamTransport::read(void* buffer, size_t length, int flags) {
    if (!mSocket) {
        return kNotConnected;
    }
    if (length == 0) {
        return kNothing;
    }
    const ssize_t count = mSocket->recv(buffer, length, flags);
    if (count > 0) {
        return {TransportStatus::kOk, count, 0};
    }
    return count == 0 ? TransportResult{TransportStatus::kClosed, -1, 0}
                      : failure(TransportStatus::kWantRead);
}

TransportResult PlainStreamTransport::write(const void* buffer, size_t length, int flags) {
    if (!mSocket) {
        return kNotConnected;
    }
    if (length == 0) {
        return kNothing;
    }
    const ssize_t count = mSocket->send(buffer, length, flags);
    return count >= 0 ? TransportResult{TransportStatus::kOk, count, 0}
                      : failure(TransportStatus::kWantWrite);
}

TransportResult PlainStreamTransport::writev(const iovec* vectors, int count, int flags) {
    if (!mSocket) {
        return kNotConnected;
    }
    if (count == 0) {
        return kNothing;
    }
    const ssize_t written = mSocket->writev(vectors, count, flags);
    return written >= 0 ? TransportResult{TransportStatus::kOk, written, 0}
                        : failure(TransportStatus::kWantWrite);
}

TransportResult PlainStreamTransport::shutdownWrite() {
    if (!mSocket) {
        return kNotConnected;
    }
    return mSocket->shutdownWrite() ? kNothing
                                    : TransportResult{TransportStatus::kError, -1, errno};
}

int PlainStreamTransport::socketError() {
    return mSocket ? mSocket->getSocketError() : ENOTCONN;
}

}  // namespace Vantel::Orbel
