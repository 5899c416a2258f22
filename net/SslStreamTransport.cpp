#include "Vantel/Orbel/SslStreamTransport.h"

#include <cerrno>
#include <utility>

#include "Vantel/Orbel/SslEngine.h"
#include "Vantel/Orbel/StreamSocket.h"

namespace Vantel::Orbel {

namespace {

constexpr TransportResult kNotConnected{TransportStatus::kError, -1, ENOTCONN};
constexpr TransportResult kNothing{TransportStatus::kOk, 0, 0};

}  // namespace

SslStreamTransport::SslStreamTransport(std::unique_ptr<StreamSocket> socket,
                                       std::unique_ptr<SslEngine> engine)
    : mSocket(std::move(socket)), mEngine(std::move(engine)) {}

SslStreamTransport::~SslStreamTransport() = default;

int SslStreamTransport::fd() const {
    return mSocket ? mSocket->fd() : -1;
}

StreamSocket* SslStreamTransport::socket() {
    return mSocket.get();
}

const StreamSocket* SslStreamTransport::socket() const {
    return mSocket.get();
}

bool SslStreamTransport::needsHandshake() const {
    return !mHandshakeDone;
}

TransportResult SslStreamTransport::handshake() {
    if (!mEngine) {
        return kNotConnected;
    }
    if (mHandshakeDone) {
        return kNothing;
    }
    const TransportResult result = mEngine->handshake();
    mHandshakeDone = result.status == TransportStatus::kOk;
    return result;
}

bool SslStreamTransport::ready() const {
    return mEngine && mHandshakeDone;
}

TransportResult SslStreamTransport::read(void* buffer, size_t length, int) {
    if (!ready()) {
        return kNotConnected;
    }
    return length == 0 ? kNothing : mEngine->read(buffer, length);
}

TransportResult SslStreamTransport::write(const void* buffer, size_t length, int) {
    if (!ready()) {
        return kNotConnected;
    }
    return length == 0 ? kNothing : mEngine->write(buffer, length);
}

TransportResult SslStreamTransport::writev(const iovec* vectors, int count, int flags) {
    return ready() ? StreamTransport::writev(vectors, count, flags) : kNotConnected;
}

TransportResult SslStreamTransport::shutdownWrite() {
    return mEngine ? mEngine->shutdown() : kNotConnected;
}

int SslStreamTransport::socketError() {
    return mSocket ? mSocket->getSocketError() : ENOTCONN;
}

bool SslStreamTransport::supportsRawRead() const {
    return false;
}

bool SslStreamTransport::supportsRawWrite() const {
    return false;
}

}  // namespace Vantel::Orbel
